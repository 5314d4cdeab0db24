# SPDX-License-Identifier: Apache-2.0
set -eu
. checks/common.sh
need $to_format
cpp_files | xargs clang-format --dry-run -Werror
python_files | xargs black --quiet --check
# The scripts split lists of packages and files into words on purpose.
shell_files | xargs shellcheck --shell sh --external-sources --exclude SC2046,SC2086
git ls-files ':!abi' ':!fuzz/corpus' | xargs codespell
echo "$(cpp_files | wc -l) C++, $(python_files | wc -l) Python and $(shell_files | wc -l) shell files"
