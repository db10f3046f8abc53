"""Builds the orbivane package with the project's CMake build.

The extension module (_orbivane) links against the C++ library; both come
out of CMake, together with the pure-Python files, the type stubs and the
shader files, in <build>/python/orbivane/, where the library sits beside the
module and the module finds it there ($ORIGIN). That folder is what the
wheel holds.

The CMake build folder is ORBIVANE_CMAKE_BUILD_DIR when set (an existing
build is reused: only what changed is built), else build/python-package
under the project. CMake, Ninja (when present) and the Debian packages of
scripts/bootstrap.sh are needed; nothing is downloaded.
"""
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py
from setuptools.dist import Distribution

HERE = Path(__file__).resolve().parent
PROJECT = HERE.parent


def project_version():
    text = (PROJECT / "CMakeLists.txt").read_text()
    found = re.search(r"project\(\s*OrbivaneCalibration\s+VERSION\s+([0-9.]+)", text)
    if not found:
        raise RuntimeError("no project version in %s" % (PROJECT / "CMakeLists.txt"))
    return found.group(1)


def cmake_package_dir():
    """Configures (when needed) and builds the package; returns its folder."""
    build = Path(os.environ.get("ORBIVANE_CMAKE_BUILD_DIR", PROJECT / "build" / "python-package")).resolve()
    if not (build / "CMakeCache.txt").exists():
        generator = ["-G", "Ninja"] if shutil.which("ninja") else []
        subprocess.check_call(["cmake", "-S", str(PROJECT), "-B", str(build), *generator,
                               "-DCMAKE_BUILD_TYPE=Release", "-DORBIVANE_BUILD_TESTS=OFF",
                               "-DORBIVANE_BUILD_BENCHMARKS=OFF", "-DORBIVANE_BUILD_PYTHON=ON",
                               "-DPython3_EXECUTABLE=" + sys.executable])
    jobs = str(os.cpu_count() or 1)
    subprocess.check_call(["cmake", "--build", str(build), "--target", "orbivane_python", "-j", jobs])
    package = build / "python" / "orbivane"
    if not any(package.glob("_orbivane*.so")):
        raise RuntimeError("the build in %s made no extension module" % build)
    return package


class BuildWithCMake(build_py):
    def run(self):
        package = cmake_package_dir()
        target = Path(self.build_lib) / "orbivane"
        if target.exists():
            shutil.rmtree(target)
        shutil.copytree(package, target, symlinks=False,
                        ignore=shutil.ignore_patterns("__pycache__", "*.pyc"))


class BinaryDistribution(Distribution):
    """The wheel holds compiled code: it is tagged for this platform."""

    def has_ext_modules(self):
        return True


setup(
    version=project_version(),
    packages=["orbivane"],
    cmdclass={"build_py": BuildWithCMake},
    distclass=BinaryDistribution,
    zip_safe=False,
)
