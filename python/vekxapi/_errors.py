"""The exceptions the package raises: one base class carrying the library's result code."""


class Error(Exception):
    """A call failed. `code` is the 32-bit result code (unsigned), `name` its name
    ("KXAPI_COMMS_ERR_INVALID_POWER_STATE") and `description` the library's text for it."""

    def __init__(self, code, name, description):
        super().__init__(f"{description} ({name}, 0x{code:08X})")
        self.code = code
        self.name = name
        self.description = description


class TargetError(Error):
    """The target refused or failed the operation ("Target error - ...")."""


class TargetTimeout(Error, TimeoutError):
    """Nothing answered in time: the target, or a wait the caller bounded."""


class ServerError(Error, ConnectionError):
    """The link to vesta-kx failed, or the server could not serve the request."""


class InvalidArgument(Error, ValueError):
    """The call's arguments were refused."""


class NotFound(Error, LookupError):
    """No target, process or thread matched."""


class NotSupported(Error, NotImplementedError):
    """The server or target does not implement the operation."""


# The native module's kinds of failure, in the order of its Kind enumeration.
_KINDS = (Error, TargetError, TargetTimeout, ServerError, InvalidArgument, NotFound, NotSupported)


def _make(kind, code, name, description):
    return _KINDS[kind](code, name, description)
