# SPDX-License-Identifier: Apache-2.0
# Checks: seeded faults, one at a time: the tests must notice each
#
# Takes an hour or more. For some of the faults:  python3 tests/mutants/run.py --only Streams.cpp
set -eu
. checks/common.sh
need $to_build $to_sanitise python3
python3 tests/mutants/run.py
