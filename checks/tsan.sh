# SPDX-License-Identifier: Apache-2.0
# Tried: g++, ThreadSanitizer, the tests that use threads
set -eu
. checks/common.sh
need $to_build
build tsan --target courier_tests # its test preset runs no other
run_tests tsan
