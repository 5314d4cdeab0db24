# SPDX-License-Identifier: Apache-2.0
# Tried: clang, AddressSanitizer, UndefinedBehaviorSanitizer
set -eu
. checks/common.sh
need $to_build $to_sanitise
build asan
run_tests asan
