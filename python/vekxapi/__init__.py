"""Python access to vekxapi targets: the same objects a C++ host uses.

    import vekxapi
    with vekxapi.connect() as api:
        kit = api.target("devkit-beta")
        kit.power_on()

See docs/python.md for a tour.
"""

import atexit
import os

from ._errors import (Error, InvalidArgument, NotFound, NotSupported, ServerError,
                      TargetError, TargetTimeout)
from ._events import Event, EventStream
from . import _native
from ._native import (Api, ConsolePiece, ConsoleStream, Memory, Process, Registers, Stop,
                      Subscription, Target, Thread, get_timeout, set_timeout, timeout)

GROUPS = tuple(_native.GROUPS)

__all__ = ["connect", "Api", "Target", "Process", "Thread", "Stop", "Event", "EventStream",
           "ConsolePiece", "Subscription", "Error", "TargetError", "TargetTimeout", "ServerError",
           "InvalidArgument", "NotFound", "NotSupported", "GROUPS", "timeout", "set_timeout",
           "get_timeout"]

# A package installed by pip carries its own server; the library looks for it along PATH, after
# any vesta-kx installed on the system.
_BUNDLED = os.path.join(os.path.dirname(__file__), "bin")
if os.path.isfile(os.path.join(_BUNDLED, "vesta-kx")):
    os.environ["PATH"] = os.environ.get("PATH", "") + os.pathsep + _BUNDLED


def connect(timeout=None):
    """The root object. The first one in a process starts the server when none runs. A
    `timeout` in seconds bounds every call's wait for the server from now on (set_timeout)."""
    if timeout is not None:
        set_timeout(timeout)
    return Api()


def _events(self, groups=None, target=None, timeout=None):
    """The events of `groups` (None: all) of the server and of `target` (None: every target,
    those added later included), as an iterator that ends after `timeout` seconds (None:
    never)."""
    return EventStream(self, groups, target, timeout)


Api.events = _events

# Subscriptions still open at exit are closed while Python can still run their callbacks' ends.
atexit.register(_native._close_all)
