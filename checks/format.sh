# SPDX-License-Identifier: Apache-2.0
# Tried: the sources against .clang-format
set -eu
. checks/common.sh
need $to_format
sources | xargs clang-format --dry-run -Werror
echo "$(sources | wc -l) files"
