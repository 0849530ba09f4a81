"""Exceptions raised for the library's result codes."""

import enum

from . import _build

# Made when the package is built, from the library's public header.
ErrorCode = enum.IntEnum("ErrorCode", _build.RESULT_CODES, module=__name__)
ErrorCode.__doc__ = """The library's result codes (QBT_RESULT_...)."""


class TrackerError(Exception):
    """A failure of the library: `code` is its result code, `message` its own text."""

    def __init__(self, code, message):
        super().__init__(message)
        try:
            self.code = ErrorCode(code)
        except ValueError:
            self.code = int(code)
        self.message = message

    def __str__(self):
        return f"{self.message} (code {int(self.code)})"


class DataFileError(TrackerError):
    """The data file (the trained forest) is missing or cannot be loaded."""


class SizeError(TrackerError, ValueError):
    """The depth map's size is not a whole multiple of 160x120."""


class ArgumentError(TrackerError, ValueError):
    """An argument the library (or this binding on its behalf) refuses."""


_CLASSES = {
    ErrorCode.DATAFILE_INVALID_FORMAT: DataFileError,
    ErrorCode.DATAFILE_NOT_FOUND: DataFileError,
    ErrorCode.INVALID_DEPTHMAP_SIZE: SizeError,
    ErrorCode.INVALID_PARAMETER: ArgumentError,
}


def error_for_code(code, message):
    """The exception for a non-zero result code and the library's text."""
    return _CLASSES.get(code, TrackerError)(code, message)
