# SPDX-License-Identifier: Apache-2.0
set -eu
. checks/common.sh
need $to_build $to_tidy
build debug --target example_elements >&2 # with the headers that are generated
here=$(printf %s "$PWD" | sed 's/[][\.*^$+?(){}|]/\\&/g')
run-clang-tidy -quiet -p build/debug "^$here/(bedrock|courier|examples|fuzz|tests)/"
echo "$(cpp_files | grep -c '\.cpp$') files"
