# SPDX-License-Identifier: Apache-2.0
# Tried: g++, release, every public header alone
set -eu
. checks/common.sh
need $to_build clang gdb # clang: the tests load a module that it built
build release
build release --target all_verify_interface_header_sets
run_tests release
