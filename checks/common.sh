# SPDX-License-Identifier: Apache-2.0
# What ./dev and the checks share. Sourced from the project's directory.

to_build="g++ cmake ninja-build pkg-config libboost-dev libgtest-dev nlohmann-json3-dev
    libcereal-dev libcli11-dev libprotobuf-dev protobuf-compiler zlib1g-dev libzstd-dev dpkg-dev file"
to_nats="nats-server libnats-dev libssl-dev openssl python3"
to_document="doxygen"
to_sanitise="clang libclang-rt-dev llvm"
to_format="clang-format"
to_tidy="clang clang-tidy clang-tools"

# need PACKAGE...: installs those that are missing, or says how. Asks no server when none is.
need() {
    command -v dpkg-query >/dev/null || return 0 # not Debian: the build says what it misses
    missing=
    for package; do
        dpkg-query -W -f '${Status}\n' "$package" 2>/dev/null | grep -q ' installed$' ||
            missing="$missing $package"
    done
    [ -n "$missing" ] || return 0
    install="apt-get update && apt-get install -y --no-install-recommends$missing"
    if [ "$(id -u)" = 0 ]; then
        DEBIAN_FRONTEND=noninteractive sh -c "$install" >&2
    elif command -v sudo >/dev/null; then
        echo "Installing$missing" >&2
        sudo DEBIAN_FRONTEND=noninteractive sh -c "$install" >&2 || ask
    else
        ask
    fi
}

ask() {
    echo "Some packages are missing. As root, run:" >&2
    echo "  $install" >&2
    exit 1
}

# build PRESET [CMAKE-BUILD-ARGUMENT...]
build() {
    preset=$1
    shift
    cmake --preset "$preset" --log-level=WARNING >/dev/null
    cmake --build --preset "$preset" "$@"
}

# Makes the Debian packages in build/package.
package() {
    build package >&2
    rm -f build/package/*.deb build/package/*.ddeb
    # What is packed is there for everybody, whatever the user's own files are.
    (umask 022 && cd build/package && cpack -G DEB >&2)
}

sources() { git ls-files '*.h' '*.cpp'; }

# run_tests PRESET: runs the tests that were built; the last line is their number.
run_tests() {
    ctest --preset "$1"
    echo "$(count_tests "$1") tests"
}

count_tests() { ctest --preset "$1" -N | sed -n 's/^Total Tests: //p'; }
