# SPDX-License-Identifier: Apache-2.0
# Tried: NATS cluster: a worker and a server are killed
set -eu
. checks/common.sh
need $to_build $to_courier
build release --target sender worker nats_tests
ctest --preset release -R '^CourierTest'
python3 examples/courier/failover_test.py --runs 3
