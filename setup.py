"""The extension shapewiener._core and the command line, built by the
project's CMake (only those two targets; no tests, benchmarks or Octave
files) and placed inside the package: shapewiener/_core*.so,
shapewiener/_version.py and shapewiener/bin/shapewiener, which the
`shapewiener` console command runs. Configuration is in pyproject.toml.

SHAPEWIENER_CMAKE_ARGS adds arguments to the CMake configuration;
CMAKE_BUILD_PARALLEL_LEVEL sets the build's jobs (default: all cores)."""

import os
import shlex
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = Path(self.build_temp).resolve() / "cmake"
        configure = ["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                     "-DSHAPEWIENER_BUILD_TESTS=OFF", "-DSHAPEWIENER_BUILD_OCTAVE=OFF",
                     "-DSHAPEWIENER_BUILD_BENCH=OFF", "-DSHAPEWIENER_BUILD_MATLAB=OFF",
                     f"-DPython3_EXECUTABLE={sys.executable}"]
        configure += shlex.split(os.environ.get("SHAPEWIENER_CMAKE_ARGS", ""))
        subprocess.run(configure, check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        print(f"shapewiener: building the extension and the command line with {jobs} jobs "
              "(a few minutes)", flush=True)
        subprocess.run(["cmake", "--build", str(build), "-j", jobs,
                        "--target", "shapewiener_python", "shapewiener"], check=True)

        package = Path(self.get_ext_fullpath(ext.name)).resolve().parent
        package.mkdir(parents=True, exist_ok=True)
        built = build / "python" / "shapewiener"
        cores = sorted(built.glob("_core*.so"))
        if not cores:
            raise RuntimeError(f"no extension _core*.so under {built}")
        shutil.copy2(cores[0], self.get_ext_fullpath(ext.name))
        shutil.copy2(built / "_version.py", package / "_version.py")
        (package / "bin").mkdir(exist_ok=True)
        program = package / "bin" / "shapewiener"
        shutil.copy2(build / "tools" / "shapewiener", program)
        program.chmod(0o755)


setup(ext_modules=[Extension("shapewiener._core", sources=[])],
      cmdclass={"build_ext": CMakeBuild},
      options={"build": {"build_base": "build/python-package"}})
