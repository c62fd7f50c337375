"""A minimal PEP 517 build backend for the gxstorage package.

It builds the extension module with the project's own CMake build
(GXSTORAGE_BUILD_PYTHON) and packs it with the pure-Python files into a
wheel. It needs nothing beyond the standard library, cmake, a C++17
compiler, the Python headers and pybind11, so ``pip install ./python`` works
offline. It builds from a source checkout only: the package folder must sit
in the gxStorage source tree.

Environment:
  GXSTORAGE_PYTHON_BUILD_DIR  CMake build folder (default: build/python in
                              the source tree; kept, so rebuilds are
                              incremental)
  CMAKE_BUILD_PARALLEL_LEVEL  parallel jobs (default 2)
"""

import base64
import hashlib
import os
import re
import subprocess
import sys
import sysconfig
import zipfile

_PACKAGE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
_SOURCE_DIR = os.path.dirname(_PACKAGE_DIR)


def _project():
    """Name, version and summary from pyproject.toml."""
    with open(os.path.join(_PACKAGE_DIR, "pyproject.toml"), encoding="utf-8") as f:
        text = f.read()
    fields = {}
    for key in ("name", "version", "description", "requires-python"):
        match = re.search(r'^%s\s*=\s*"([^"]*)"' % key, text, re.M)
        fields[key] = match.group(1) if match else ""
    return fields


def _tag():
    version = "cp%d%d" % sys.version_info[:2]
    platform = re.sub(r"[^A-Za-z0-9]", "_", sysconfig.get_platform())
    return "%s-%s-%s" % (version, version, platform)


def _build_module():
    """Configures and builds the extension; returns its path."""
    if not os.path.isfile(os.path.join(_SOURCE_DIR, "CMakeLists.txt")):
        raise RuntimeError("gxstorage builds only inside the gxStorage source "
                           "tree (%s has no CMakeLists.txt)" % _SOURCE_DIR)
    build = os.environ.get("GXSTORAGE_PYTHON_BUILD_DIR") or os.path.join(
        _SOURCE_DIR, "build", "python")
    python = os.path.realpath(sys.executable)
    subprocess.check_call([
        "cmake", "-S", _SOURCE_DIR, "-B", build,
        "-DCMAKE_BUILD_TYPE=Release",
        "-DGXSTORAGE_BUILD_PYTHON=ON",
        "-DGXSTORAGE_BUILD_TOOLS=OFF",
        "-DGXSTORAGE_BUILD_TESTS=OFF",
        "-DPython_EXECUTABLE=" + python,
    ], stdout=sys.stderr)
    env = dict(os.environ)
    env.setdefault("CMAKE_BUILD_PARALLEL_LEVEL", "2")
    subprocess.check_call(["cmake", "--build", build, "--target", "_gxstorage"],
                          stdout=sys.stderr, env=env)
    suffix = sysconfig.get_config_var("EXT_SUFFIX")
    module = os.path.join(build, "python", "gxstorage", "_gxstorage" + suffix)
    if not os.path.isfile(module):
        raise RuntimeError("the build made no %s" % module)
    return module


def _record_line(name, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest())
    return "%s,sha256=%s,%d" % (name, digest.rstrip(b"=").decode(), len(data))


# ---- PEP 517 hooks -------------------------------------------------------

def get_requires_for_build_wheel(config_settings=None):
    return []


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    project = _project()
    name, version = project["name"], project["version"]
    files = {}
    package = os.path.join(_PACKAGE_DIR, "gxstorage")
    for entry in sorted(os.listdir(package)):
        if entry.endswith((".py", ".pyi")) or entry == "py.typed":
            with open(os.path.join(package, entry), "rb") as f:
                files["gxstorage/" + entry] = f.read()
    module = _build_module()
    with open(module, "rb") as f:
        files["gxstorage/" + os.path.basename(module)] = f.read()

    info = "%s-%s.dist-info" % (name, version)
    files[info + "/METADATA"] = (
        "Metadata-Version: 2.1\nName: %s\nVersion: %s\nSummary: %s\n"
        "Requires-Python: %s\n" % (name, version, project["description"],
                                   project["requires-python"])).encode()
    files[info + "/WHEEL"] = (
        "Wheel-Version: 1.0\nGenerator: gxstorage_build\n"
        "Root-Is-Purelib: false\nTag: %s\n" % _tag()).encode()
    files[info + "/top_level.txt"] = b"gxstorage\n"
    record = [_record_line(n, d) for n, d in files.items()]
    record.append(info + "/RECORD,,")
    files[info + "/RECORD"] = ("\n".join(record) + "\n").encode()

    wheel = "%s-%s-%s.whl" % (name, version, _tag())
    with zipfile.ZipFile(os.path.join(wheel_directory, wheel), "w",
                         zipfile.ZIP_DEFLATED) as archive:
        for entry, data in files.items():
            archive.writestr(entry, data)
    return wheel
