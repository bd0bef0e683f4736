# SPDX-License-Identifier: MIT
"""The exceptions of velta. Every one is a velta.Error; where Python has a kind of its own for it, it is that too."""

import builtins


class Error(Exception):
    """Base of everything that velta raises by itself."""


class ArgumentError(Error, ValueError):
    """An argument that no arm could be driven with; nothing was changed."""


class ConnectError(Error, ConnectionError):
    """No status came; the text gives the reason."""


class TimeoutError(Error, builtins.TimeoutError):
    """What was waited for did not happen in time."""


class DiscardedError(Error):
    """The command will not be sent (again); the text gives the reason."""


class RecordingError(Error):
    """The file is no recording, or is damaged."""


for _error in (Error, ArgumentError, ConnectError, TimeoutError, DiscardedError, RecordingError):
    _error.__module__ = "velta"
