"""The package from the build tree, against a vesta-kx of the same tree in a runtime directory
of the run's own. PYTHONPATH names <build>/python; the server and the debuggee are found beside
it, or where VEKX_SERVER_DIR and VEKX_DEBUGGEE say."""

import os
import subprocess
import tempfile

import pytest

_RUNTIME = tempfile.mkdtemp(prefix="vekx-py-")
os.environ["XDG_RUNTIME_DIR"] = _RUNTIME
# A sanitized build runs Python with the sanitizer's runtime preloaded; the server the library
# starts carries its own and must not get a second one.
PRELOAD = os.environ.pop("LD_PRELOAD", None)

import vekxapi  # noqa: E402  (after the runtime directory is set)

BUILD = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(vekxapi.__file__))))
SERVER_DIR = os.environ.get("VEKX_SERVER_DIR", os.path.join(BUILD, "server"))
DEBUGGEE = os.environ.get("VEKX_DEBUGGEE", os.path.join(BUILD, "tests", "vekx_debuggee"))
os.environ["PATH"] = SERVER_DIR + os.pathsep + os.environ["PATH"]


def pytest_sessionfinish(session):
    subprocess.run([os.path.join(SERVER_DIR, "vesta-ctrl"), "server", "stop"],
                   capture_output=True, timeout=30, check=False)
    subprocess.run(["rm", "-rf", _RUNTIME], check=False)


@pytest.fixture(scope="session")
def api():
    with vekxapi.connect() as root:
        yield root


@pytest.fixture(scope="session")
def debuggee():
    return DEBUGGEE


@pytest.fixture(scope="session")
def symbols():
    """The debuggee's symbol addresses, from the list its build wrote beside it."""
    table = {}
    with open(DEBUGGEE + ".syms", encoding="utf-8") as listing:
        for line in listing:
            fields = line.split()
            if len(fields) >= 3:
                table[fields[0]] = int(fields[2], 16)
    return table
