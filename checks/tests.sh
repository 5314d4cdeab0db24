# SPDX-License-Identifier: Apache-2.0
# Builds and runs the tests of one preset: `sh checks/tests.sh [PRESET]`, by default release.
set -eu
. checks/common.sh
preset=${1:-release}
targets=
only=
jobs=1

need $to_build
case $preset in
release)
    # clang builds a module that a test loads. Benchmarks and the programs for NATS are only built.
    need clang gdb libnats-dev libbenchmark-dev libabsl-dev
    cmake --preset release -D COURIER_BUILD_BENCHMARKS=ON --log-level=WARNING >/dev/null
    ;;
asan) need $to_sanitise ;;
asan-gcc) ;;
tsan) targets="--target courier_tests replay_threads" only="--label-regex ^(unit|courier_tests)$" ;;
libcxx) need googletest clang-19 libc++-19-dev libc++abi-19-dev ;;
aarch64 | s390x) need googletest qemu-user "g++-$preset-linux-gnu" ;;
windows*) need googletest g++-mingw-w64-x86-64-posix wine64 ;;
*)
    echo "There is no test preset '$preset'." >&2
    exit 2
    ;;
esac

build "$preset" $targets
case $preset in
release)
    jobs=2
    build release --target all_verify_interface_header_sets nats
    ;;
*san*)
    # By default exhausted memory ends the process, and some tests are about that.
    export ASAN_OPTIONS=allocator_may_return_null=1 TSAN_OPTIONS=allocator_may_return_null=1
    jobs=2
    ;;
windows*)
    # One server for all tests, or each would start its own. It ends 10 s after the last one.
    export WINEPREFIX="$PWD/build/wine" WINEDEBUG=-all
    WINEPATH="/usr/lib/gcc/x86_64-w64-mingw32/12-posix;/usr/x86_64-w64-mingw32/lib"
    for directory in bedrock courier/hub/serialisation; do
        WINEPATH="$PWD/build/$preset/$directory;$WINEPATH"
    done
    export WINEPATH
    mkdir -p "$WINEPREFIX"
    /usr/lib/wine/wineserver64 -p10
    /usr/lib/wine/wine64 wineboot --init # slow the first time
    ;;
esac
tests() { ctest --test-dir "build/$preset" $only "$@"; }
tests --output-on-failure --parallel $jobs
echo "$(tests -N | sed -n 's/^Total Tests: //p') tests"
