#!/usr/bin/env bash
# Makes the virtual environment build/python-venv (from /usr/bin/python3,
# with the system's packages visible: olefile, pytest), installs the
# gxstorage package into it with `pip install ./python` (offline; the build
# runs the project's CMake in build/python, incrementally) and prints the
# environment's python. Progress goes to standard error.
#
#   scripts/python-env.sh     (GXSTORAGE_VENV overrides the folder)
set -euo pipefail
cd "$(dirname "$0")/.."
venv=${GXSTORAGE_VENV:-build/python-venv}
if [[ ! -x $venv/bin/python ]]; then
  /usr/bin/python3 -m venv --system-site-packages "$venv" >&2
fi
"$venv/bin/pip" install --quiet --no-index --disable-pip-version-check ./python >&2
echo "$PWD/$venv/bin/python"
