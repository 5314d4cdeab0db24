# SPDX-License-Identifier: Apache-2.0
# Tried: big-endian s390x, the tests under qemu
set -eu
. checks/common.sh
need $to_build googletest qemu-user g++-s390x-linux-gnu
build s390x
run_tests s390x
