# SPDX-License-Identifier: Apache-2.0
set -eu
. checks/common.sh
need $to_build lintian fakeroot gdb
package
dir=$PWD/build/package

# In Debian itself a first version would have to close the bug that asked for the package.
lintian --allow-root --suppress-tags initial-upload-closes-no-bugs --fail-on error \
    "$dir"/*.deb >"$dir/lintian" 2>&1 || { cat "$dir/lintian" && exit 1; }
cat "$dir/lintian"

# The dependencies can be installed.
apt-get install --simulate --no-install-recommends "$dir"/*.deb >"$dir/simulated"
grep "^Inst libcourier" "$dir/simulated"

# A root that has only dpkg's records. The dependencies are outside of it, and so is the shell that runs
# the scripts, whose ldconfig must not act on this machine.
root=$dir/root
rm -rf "$root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates" "$root/var/lib/dpkg/triggers"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
mkdir -p "$dir/bin"
ln -sf /bin/true "$dir/bin/ldconfig"
in_root() {
    PATH=$dir/bin:$PATH:/usr/sbin:/sbin fakeroot dpkg --root="$root" --force-depends \
        --force-script-chrootless --log=/dev/null "$@"
}
installed() { (cd "$root" && find . -path ./var/lib/dpkg -prune -o -print | sort); }
installed >"$dir/before"
in_root --install "$dir"/*.deb
[ "$(in_root --list 'libcourier-hub-serialisation*' | grep -c ^ii)" = 2 ]
in_root --verify

# The installed examples are built. The loader must be told of this directory, which is not a standard
# one.
library=$(find "$root" -name 'libcourier_hub_serialisation.so')
LD_LIBRARY_PATH=$(dirname "$library")
export LD_LIBRARY_PATH
python3 tests/package/check.py "$dir/outside" "${CXX:-g++}" Ninja "$root/usr"

# gdb finds the printers by the library's path. The links give the files the paths that they have if
# the root is the machine's own.
PKG_CONFIG_PATH=$LD_LIBRARY_PATH/pkgconfig
export PKG_CONFIG_PATH
"${CXX:-g++}" -std=c++20 -g tests/gdb/program.cpp -o "$dir/program" \
    $(pkg-config --cflags --libs courier_hub_serialisation)
mkdir -p "$dir/auto-load$root"
ln -sfn "$root/usr/share/gdb/auto-load/usr" "$dir/auto-load$root/usr"
gdb -nx -batch -iex "add-auto-load-safe-path $root" -iex "add-auto-load-safe-path $dir/auto-load" \
    -iex "add-auto-load-scripts-directory $dir/auto-load" -x tests/gdb/check.py "$dir/program" ||
    [ $? = 77 ] # gdb is not allowed to trace

in_root --purge $(in_root --list 'libcourier*' | sed -n 's/^ii *\([^ :]*\).*/\1/p')
installed | diff "$dir/before" -
echo "2 packages, lintian: 0 errors, $(grep -c '^W:' "$dir/lintian" || :) warnings; installed, used, removed"
