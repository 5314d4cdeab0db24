# SPDX-License-Identifier: Apache-2.0
set -eu
. checks/common.sh
need $to_build gcovr
targets=$(ls fuzz/corpus)
build coverage --target courier_tests huge_tests modules_tests $(printf 'replay_%s ' $targets)
find build/coverage -name '*.gcda' -delete # what earlier runs counted
for program in courier_tests huge_tests modules_tests; do
    "build/coverage/tests/$program" --gtest_brief=1
done
for target in $targets; do
    "build/coverage/fuzz/replay_$target" "fuzz/corpus/$target"
done

# Branches that only an exception takes are not counted: the compiler makes one for nearly every
# call. The last column of the lists names the lines, or the branches' lines, that no test runs.
measure() {
    gcovr --root . --object-directory build/coverage --filter 'courier/' --filter 'bedrock/' \
        --exclude-throw-branches --exclude-unreachable-branches "$@"
}
measure
measure --branches
measure --print-summary --output /dev/null |
    sed -n 's/^\(lines\|branches\): \([0-9.]*\)%.*/\2 % of \1/p' | paste -s -d, | sed 's/,/, /'
