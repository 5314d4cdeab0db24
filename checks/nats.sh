# SPDX-License-Identifier: Apache-2.0
# Checks: NATS: failures, poison, strangers, full servers
set -eu
. checks/common.sh
need $to_build $to_nats
build release --target nats nats_tests
ctest --preset release -L nats
python3 -W ignore tests/nats/nats_test.py
python3 examples/nats/measure.py
