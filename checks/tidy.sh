# SPDX-License-Identifier: Apache-2.0
# Tried: clang-tidy over library, examples, tests
set -eu
. checks/common.sh
need $to_build $to_tidy
build debug >&2
here=$(printf %s "$PWD" | sed 's/[][\.*^$+?(){}|]/\\&/g')
run-clang-tidy -quiet -p build/debug "^$here/(bedrock|courier|examples|fuzz|tests)/"
echo "$(sources | grep -c '\.cpp$') files"
