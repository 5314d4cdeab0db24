# SPDX-License-Identifier: Apache-2.0
# Tried: clang 19, libc++ with its own checks
set -eu
. checks/common.sh
need $to_build googletest clang-19 libc++-19-dev libc++abi-19-dev
build libcxx
run_tests libcxx
