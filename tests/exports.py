# SPDX-License-Identifier: Apache-2.0
"""Only these names leave the shared objects, and none of them is unique in the process: a unique symbol
would keep its library from ever being unloaded. exports.py NM PATTERN LIBRARY..."""

import re
import subprocess
import sys

nm, pattern, *libraries = sys.argv[1:]
allowed = re.compile(f"[0-9a-f]+ [^u] ((typeinfo|typeinfo name|vtable) for )?({pattern})")
for library in libraries:
    names = subprocess.check_output(
        [nm, "-D", "-C", "--defined-only", library], text=True
    ).splitlines()
    wrong = [name for name in names if not allowed.match(name)]
    if wrong or not names:
        sys.exit(f"{library} exports {wrong or 'nothing'}")
