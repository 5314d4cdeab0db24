# SPDX-License-Identifier: Apache-2.0
# Additions pass; a removal or change fails. `sh checks/abi.sh --renew` lists the present symbols. The
# sizes and members of classes are checked when tests/LayoutTest.cpp is compiled.
set -eu
. checks/common.sh
need $to_build
build package >&2

libraries="build/package/bedrock/libbedrock.so
    build/package/courier/hub/serialisation/libcourier_hub_serialisation.so"
version=$(project_version)
name=libcourier-hub-serialisation${version%.*}
if [ "${1:-}" = --renew ]; then
    for library in $libraries; do
        echo "$(basename $library).${version%.*} $name #MINVER#"
        # One line for the tables of a class, which come and go together.
        nm -D --defined-only $library | sed 's/.* //' | c++filt |
            sed "s/.*/ (c++)\"&@Base\" ${version%.*}/
                s/(c++)\"\(vtable\|typeinfo\|typeinfo name\) for/(c++|regex)\"^(vtable|typeinfo|typeinfo name) for/" |
            LC_ALL=C sort -u
    done >packaging/symbols
fi
dpkg-gensymbols -p$name -v$version -Ipackaging/symbols $(printf -- '-e%s ' $libraries) -c1 \
    -Obuild/package/symbols >build/package/symbols.diff || {
    cat build/package/symbols.diff
    echo "Symbols are gone. If they may, before 1.0 with the next minor version, list the others:"
    echo "  sh checks/abi.sh --renew"
    exit 1
}
echo "$(grep -c '@Base' build/package/symbols) symbols"
