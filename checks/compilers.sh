# SPDX-License-Identifier: Apache-2.0
# Every header and the README's program, as a user's own code, with all warnings as errors. The
# program is run if it can be linked.
set -eu
. checks/common.sh
need $to_build $to_sanitise clang-19 clang-22
build release --target courier_hub_serialisation >&2

work=build/compilers
mkdir -p $work
# The other Boost cannot be installed beside Debian's own.
boost=$PWD/$work/boost-1.81
[ -d "$boost" ] || {
    (cd $work && apt-get download -q libboost1.81-dev >&2)
    dpkg -x $work/libboost1.81-dev_*.deb "$boost"
}

{
    echo '#ifdef WITH_MACROS'
    echo '#include <bits/stdc++.h>'
    echo '#define min(a, b) ((a) < (b) ? (a) : (b))'
    echo '#define max(a, b) ((a) < (b) ? (b) : (a))'
    echo '#endif'
    git ls-files '*/include/*.h' | sed 's|.*/include/\(.*\)|#include <\1>|'
    echo '#ifdef __clang__' # the program's functions are declared nowhere
    echo '#pragma clang diagnostic ignored "-Wmissing-prototypes"'
    echo '#endif'
    cat examples/quickstart/main.cpp
} >$work/all.cpp

built=build/release
include="$(for directory in bedrock courier/hub/core courier/hub/serialisation; do
    echo "-I$directory/include"
done) -I$built/bedrock/include -I$built/courier/hub/serialisation/include"
gnu="-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wold-style-cast -Werror"
# Bytes are pointers here, and functions make constants. Installed headers are system headers.
every="-Weverything -Wno-c++98-compat -Wno-c++98-compat-pedantic -Wno-padded -Wno-weak-vtables
    -Wno-unknown-warning-option -Wno-unsafe-buffer-usage -Wno-nrvo -Werror"

count=0
# compile COMPILER OPTION...
compile() {
    echo "$*" >&2
    "$@" $include -c $work/all.cpp -o $work/all.o
    count=$((count + 1))
}
# try COMPILER OPTION...: runs the program as well
try() {
    compile "$@"
    "$@" $work/all.o -o $work/program -L$built/courier/hub/serialisation -L$built/bedrock \
        -lcourier_hub_serialisation -lbedrock -pthread \
        "-Wl,-rpath,$PWD/$built/courier/hub/serialisation:$PWD/$built/bedrock"
    [ "$($work/program)" = "1999 cents" ]
}
for standard in 20 23; do
    try g++ -std=c++$standard $gnu
done
for standard in 20 2b; do
    try clang++-14 -std=c++$standard $every
done
for compiler in clang++-19 clang++-22; do
    for standard in 20 23 26; do
        try $compiler -std=c++$standard $every
    done
done
for option in -fsanitize=address -fsanitize=undefined -fsanitize=thread -fno-rtti -D_GLIBCXX_ASSERTIONS \
    -DNDEBUG -DWITH_MACROS "-O2 -DNDEBUG" -O3; do
    for compiler in g++ clang++-14; do
        try $compiler -std=c++20 $option
    done
done
for compiler in g++ clang++-14; do # its containers are other types than the library's
    compile $compiler -std=c++20 -D_GLIBCXX_DEBUG
done
for compiler in g++ clang++-19; do
    try $compiler -std=c++20 -isystem "$boost/usr/include"
done
echo "$count combinations"
