# SPDX-License-Identifier: Apache-2.0
# Checks: the ABI of public headers and symbols against abi/
#
# Additions pass; removals and changes fail. `sh checks/abi.sh --renew` stores the present ABI as the
# one to compare with. It is compressed, because nobody reads it: abidiff says what differs.
set -eu
. checks/common.sh
need $to_build abigail-tools

stage=build/abi/stage
cmake -G Ninja -S . -B build/abi --log-level=WARNING \
    -DCMAKE_CXX_COMPILER=g++ -DCMAKE_CXX_FLAGS="-fdebug-prefix-map=$PWD/=" -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_INSTALL_PREFIX="$PWD/$stage" -DCMAKE_INSTALL_LIBDIR=lib -DCOURIER_BUILD_TESTS=OFF \
    -DCOURIER_BUILD_EXAMPLES=OFF >/dev/null
cmake --build build/abi
rm -rf $stage
cmake --install build/abi >/dev/null

status=0
for name in bedrock courier_hub_serialisation; do
    now=build/abi/$name.xml
    abidw --headers-dir $stage/include --drop-private-types --suppressions abi/suppressions \
        --exported-interfaces-only --drop-undefined-syms --no-elf-needed --no-corpus-path \
        --no-comp-dir-path --no-show-locs --no-architecture --no-parameter-names \
        --type-id-style hash --out-file $now $stage/lib/lib$name.so
    if [ "${1:-}" = --renew ]; then
        gzip -9n <$now >abi/$name.xml.gz
    else
        gzip -d <abi/$name.xml.gz >build/abi/$name.baseline
        abidiff --no-added-syms --no-show-locs build/abi/$name.baseline $now || status=$?
    fi
done
[ $status = 0 ] || {
    echo "The ABI has changed. If it may, before 1.0 with the next minor version, renew abi/:"
    echo "  sh checks/abi.sh --renew"
    exit 1
}
echo "$(cat build/abi/*.xml | grep -c '<elf-symbol ') symbols"
