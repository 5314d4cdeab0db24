# SPDX-License-Identifier: Apache-2.0
# Tried: g++, AddressSanitizer, UndefinedBehaviorSanitizer
set -eu
. checks/common.sh
need $to_build
build asan-gcc
run_tests asan-gcc
