# SPDX-License-Identifier: Apache-2.0
# Checks: NATS: failures, poison, strangers, full servers
set -eu
. checks/common.sh
need $to_build $to_nats
build release --target nats roundtrip
python3 tests/nats/nats_test.py
python3 tests/nats/nats_test.py --failover 1 4
python3 examples/nats/measure.py
