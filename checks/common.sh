# SPDX-License-Identifier: Apache-2.0
# What ./dev and the checks share. They source it from the project's directory.

# shellcheck disable=SC2034 # used by the scripts that source this one
{
    to_build="g++ cmake ninja-build pkg-config libboost-dev libgtest-dev nlohmann-json3-dev
        libcereal-dev libcli11-dev libprotobuf-dev protobuf-compiler zlib1g-dev libzstd-dev dpkg-dev
        file python3"
    to_nats="nats-server libnats-dev openssl python3-cryptography"
    to_bench="libbenchmark-dev libabsl-dev valgrind"
    to_document="doxygen doxygen-awesome-css"
    to_sanitise="clang libclang-rt-dev llvm"
    to_format="clang-format black shellcheck codespell"
    to_tidy="clang clang-tidy clang-tools"
}

# need PACKAGE...: installs those that are missing, or prints how. Contacts no server if none is.
need() {
    command -v dpkg-query >/dev/null || return 0 # not Debian: the build reports what is missing
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
    cmake --build "build/$preset" "$@"
}

# Makes the Debian packages in build/package.
package() {
    build package >&2
    rm -f build/package/*.deb build/package/*.ddeb
    # The packed files must be readable for everybody, whatever the user's own umask.
    (umask 022 && cd build/package && cpack -G DEB >&2)
}

# Makes the documentation site in build/docs/html.
document() {
    rm -rf build/docs
    mkdir -p build/docs
    VERSION=$(project_version) doxygen docs/Doxyfile
}

project_version() { sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' CMakeLists.txt; }

cpp_files() { git ls-files '*.h' '*.cpp'; }
python_files() { git ls-files '*.py'; }
shell_files() { git ls-files '*.sh' dev checks/run .ci/run; }
