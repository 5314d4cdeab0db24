# SPDX-License-Identifier: Apache-2.0
# Tried: Windows, as DLLs and static, the tests under wine
set -eu
. checks/common.sh
need $to_build googletest g++-mingw-w64-x86-64-posix wine64
build windows
build windows-static
# One server for all tests, which else would start and stop one each. It ends 10 s after the last.
export WINEPREFIX="$PWD/build/wine" WINEDEBUG=-all
mkdir -p "$WINEPREFIX"
/usr/lib/wine/wineserver64 -p10
/usr/lib/wine/wine64 wineboot --init # slow the first time
run_tests windows
run_tests windows-static
echo "$(count_tests windows) tests as DLLs, $(count_tests windows-static) static"
