# SPDX-License-Identifier: Apache-2.0
# Tried: 64-bit ARM, the tests under qemu
set -eu
. checks/common.sh
need $to_build googletest qemu-user g++-aarch64-linux-gnu
build aarch64
run_tests aarch64
