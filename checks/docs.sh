# SPDX-License-Identifier: Apache-2.0
set -eu
. checks/common.sh
need $to_document python3
document
links=$(python3 checks/links.py build/docs/html $(git ls-files '*.md')) || {
    echo "$links"
    exit 1
}
echo "$links, 0 warnings"
