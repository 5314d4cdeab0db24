# SPDX-License-Identifier: Apache-2.0
set -eu
. checks/common.sh
need $to_document python3
document
python3 checks/names.py
python3 checks/links.py build/docs/html $(git ls-files '*.md')
