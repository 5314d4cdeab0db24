# SPDX-License-Identifier: Apache-2.0
"""Uses the library as its users do: as a subdirectory, and installed, by find_package() and pkg-config. The
installed examples are built without the project. check.py WORK_DIR COMPILER GENERATOR INSTALLATION, which
is a prefix or else a build directory that is installed first."""

import os
import pathlib
import shutil
import subprocess
import sys

project = pathlib.Path(__file__).resolve().parents[2]
compiler, generator = sys.argv[2:4]
work, prefix = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[4])


def run(*command, expected=None):
    print(*command, flush=True)
    result = subprocess.run(command, stdout=subprocess.PIPE, text=True)
    print(result.stdout, flush=True)
    if result.returncode != 0 or expected not in (None, result.stdout):
        sys.exit(f"status {result.returncode}, expected output: {expected}")
    return result.stdout


def build(source, name, *options):
    options = (f"-DCMAKE_CXX_COMPILER={compiler}", *options)
    run("cmake", "-S", source, "-B", work / name, "-G", generator, *options)
    run("cmake", "--build", work / name)


shutil.rmtree(work, ignore_errors=True)
if (prefix / "CMakeCache.txt").exists():
    run("cmake", "--install", prefix, "--prefix", work / "prefix")
    prefix = work / "prefix"
    static = (f"-DCOURIER_SOURCE_DIR={project}", "-DBUILD_SHARED_LIBS=OFF")
    build(project / "tests/package", "static", *static)
    run(work / "static/quickstart", expected="1999 cents\n")

(examples,) = prefix.glob("share/doc/*/examples")
build(examples, "examples", f"-DCMAKE_PREFIX_PATH={prefix}")
built = work / "examples"
run(built / "quickstart", expected="1999 cents\n")
guides = built / "guides"
run(guides / "guide_host", guides / "guide_module.so", expected="21.5 degrees\nunloaded\n")
run(guides / "guide_testing")
run(built / "roundtrip/roundtrip")  # with the files of the installed tree

(pc,) = prefix.rglob("courier_hub_serialisation.pc")
os.environ["PKG_CONFIG_PATH"] = str(pc.parent)
flags = run("pkg-config", "--cflags", "--libs", "courier_hub_serialisation").split()
flags += ["-std=c++20", f"-Wl,-rpath,{pc.parents[1]}"]
run(compiler, examples / "quickstart/main.cpp", "-o", work / "pkg-config", *flags)
run(work / "pkg-config", expected="1999 cents\n")

# Every link of an installed page resolves there.
run(sys.executable, project / "checks/links.py", *examples.parent.rglob("*.md"))
