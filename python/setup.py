"""Builds the native module with the tree's CMake build and packs it with the library and the
server beside it, so that an installed package needs nothing else of the tree."""

import glob
import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = os.path.dirname(os.path.abspath(__file__))
TREE = os.path.dirname(HERE)


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        subprocess.run(
            ["cmake", "-S", TREE, "-B", build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Release",
             "-DVEKX_BUILD_PYTHON=ON", "-DVEKX_BUILD_TESTS=OFF",
             f"-DPython3_EXECUTABLE={sys.executable}",
             # The module finds the library copied beside it.
             "-DCMAKE_BUILD_RPATH=$ORIGIN"],
            check=True)
        subprocess.run(["cmake", "--build", build, "--target", "vekxapi_native", "vesta-kx"],
                       check=True)
        module = self.get_ext_fullpath(ext.name)
        package = os.path.dirname(module)
        os.makedirs(os.path.join(package, "bin"), exist_ok=True)
        shutil.copy2(glob.glob(os.path.join(build, "python", "vekxapi", "_native*.so"))[0], module)
        # By the name the module asks for (the library's soname).
        shutil.copy2(os.path.join(build, "src", "libvekxapi.so.5"), package)
        shutil.copy2(os.path.join(build, "server", "vesta-kx"), os.path.join(package, "bin"))


setup(
    packages=["vekxapi"],
    ext_modules=[Extension("vekxapi._native", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
)
