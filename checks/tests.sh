# SPDX-License-Identifier: Apache-2.0
# Builds and runs the tests of one preset: `sh checks/tests.sh [PRESET]`, by default release.
set -eu
. checks/common.sh
preset=${1:-release}

need $to_build
case $preset in
release)
    # clang builds a module that a test loads. Benchmarks and the programs for NATS are only built.
    need clang gdb libnats-dev libbenchmark-dev libabsl-dev
    cmake --preset release -D COURIER_BUILD_BENCHMARKS=ON --log-level=WARNING >/dev/null
    ;;
asan) need $to_sanitise ;;
asan-gcc | tsan) ;;
libcxx) need googletest clang-19 libc++-19-dev libc++abi-19-dev ;;
aarch64 | s390x) need googletest qemu-user "g++-$preset-linux-gnu" ;;
windows*) need googletest g++-mingw-w64-x86-64-posix wine64 ;;
*)
    echo "There is no test preset '$preset'." >&2
    exit 2
    ;;
esac

build "$preset"
case $preset in
release) build release --target all_verify_interface_header_sets ;;
windows*)
    # One server for all tests, or each would start its own. It ends 10 s after the last one.
    export WINEPREFIX="$PWD/build/wine" WINEDEBUG=-all
    mkdir -p "$WINEPREFIX"
    /usr/lib/wine/wineserver64 -p10
    /usr/lib/wine/wine64 wineboot --init # slow the first time
    ;;
esac
ctest --preset "$preset"
echo "$(ctest --preset "$preset" -N | sed -n 's/^Total Tests: //p') tests"
