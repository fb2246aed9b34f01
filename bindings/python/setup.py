"""Builds terrane_common with CMake against this source tree, for pip.

    python3 -m venv .venv && .venv/bin/pip install --no-build-isolation ./bindings/python

needs nothing from the network: CMake configures the whole tree (without its tests), builds the
library and the module for the interpreter that runs pip, and the package gets both, the module
finding the library beside itself.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent


class CMakeExtension(Extension):
    def __init__(self, name):
        super().__init__(name, sources=[])


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        subprocess.run(
            [
                "cmake", "-S", str(ROOT), "-B", str(build), "-G", "Ninja",
                "-DCMAKE_BUILD_TYPE=Release",
                "-DTERRANE_BUILD_TESTS=OFF",
                "-DTERRANE_BUILD_BENCHMARKS=OFF",
                "-DTERRANE_BUILD_EXAMPLES=OFF",
                "-DTERRANE_BUILD_TOOLS=OFF",
                "-DTERRANE_INSTALL=OFF",
                "-DTERRANE_BUILD_PYTHON=ON",
                "-DTERRANE_PYTHON_BESIDE_LIBRARY=ON",
                f"-DPython_EXECUTABLE={sys.executable}",
            ],
            check=True,
        )
        jobs = str(os.cpu_count() or 1)
        subprocess.run(["cmake", "--build", str(build), "--target", "terrane_python",
                        "--parallel", jobs], check=True)
        built = build / "bindings" / "python" / "terrane_common"
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).parent
        target.mkdir(parents=True, exist_ok=True)
        shutil.copy2(next(built.glob("_core*.so")), pathlib.Path(self.get_ext_fullpath(ext.name)))
        for library in (build / "src").glob("libTerraneCommon.so.*"):
            if re.fullmatch(r"libTerraneCommon\.so\.\d+", library.name):  # the soname
                shutil.copy2(library.resolve(), target / library.name)


setup(
    name="terrane_common",
    version="9.2.0",
    description="Offline map data, HTTP, logging and reachability for mapping applications",
    packages=["terrane_common"],
    package_data={"terrane_common": ["*.pyi", "py.typed"]},
    ext_modules=[CMakeExtension("terrane_common._core")],
    cmdclass={"build_ext": CMakeBuild},
    python_requires=">=3.9",
    zip_safe=False,
)
