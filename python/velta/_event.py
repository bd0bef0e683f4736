# SPDX-License-Identifier: MIT
from typing import NamedTuple

from velta._velta import EventKind


class Event(NamedTuple):
    """What a session reports, in the order in which it happened."""

    kind: EventKind
    time: int
    """ns since the Unix epoch"""
    value: float
    """TRYING: seconds until then; OVERRUN: cycles missed; LEFT_OUT: events left out before this one"""
    text: str
    """one line for people"""


Event.__module__ = "velta"
