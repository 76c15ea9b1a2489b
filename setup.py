"""Builds the kelma Python package (kelma and the command line kelma_cli) with
CMake, from setuptools as Debian ships it; nothing is downloaded:

    pip install . --no-build-isolation

The extension kelma._kelma is the CMake target kelma_python, a self-contained
module (the library linked in). A fresh CMake build of it is made under
setuptools' build folder (build/setuptools, or KELMA_SETUPTOOLS_DIR), which
compiles the library. To reuse a configured build tree instead (as the tests
do), name it in KELMA_CMAKE_BUILD_DIR: its target is brought up to date and
copied. The version is CMake's project
version, the one version number of kelma.
"""
import os
import re
import shutil
import subprocess
import sys
import sysconfig
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


def project_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(kelma VERSION (\d+\.\d+\.\d+)", text).group(1)


def work_dir():
    """Where setuptools keeps its build and metadata folders: KELMA_SETUPTOOLS_DIR,
    else inside the named CMake build tree, else build/setuptools."""
    if os.environ.get("KELMA_SETUPTOOLS_DIR"):
        return Path(os.environ["KELMA_SETUPTOOLS_DIR"]).resolve()
    reuse = os.environ.get("KELMA_CMAKE_BUILD_DIR")
    base = Path(reuse).resolve() if reuse else ROOT / "build"
    return base / "setuptools"


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        reuse = os.environ.get("KELMA_CMAKE_BUILD_DIR")
        if reuse:
            build_dir = Path(reuse).resolve()
            if not (build_dir / "CMakeCache.txt").is_file():
                raise RuntimeError("KELMA_CMAKE_BUILD_DIR=%s is not a configured CMake build tree" % build_dir)
        else:
            build_dir = Path(self.build_temp).resolve() / "cmake"
            configure = ["cmake", "-S", str(ROOT), "-B", str(build_dir), "-DCMAKE_BUILD_TYPE=Release",
                         "-DKELMA_BUILD_TESTS=OFF", "-DKELMA_BUILD_BENCH=OFF",
                         "-DPython3_EXECUTABLE=" + sys.executable]
            if shutil.which("ninja"):
                configure += ["-G", "Ninja"]
            subprocess.run(configure, check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL") or str(os.cpu_count() or 1)
        subprocess.run(["cmake", "--build", str(build_dir), "--target", "kelma_python", "--parallel", jobs],
                       check=True)
        suffix = sysconfig.get_config_var("EXT_SUFFIX")
        built = build_dir / "python" / "kelma" / ("_kelma" + suffix)
        if not built.is_file():
            raise RuntimeError("%s was not built (is that tree configured for %s?)" % (built, sys.executable))
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(built, target)


work = work_dir()
work.mkdir(parents=True, exist_ok=True)
setup(
    version=project_version(),
    ext_modules=[Extension("kelma._kelma", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    options={"build": {"build_base": str(work / "build")}, "egg_info": {"egg_base": str(work)}},
)
