# SPDX-License-Identifier: MIT
"""Many packets as arrays."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Any, NamedTuple

import numpy as np
import numpy.typing as npt


class _Table:
    joints: npt.NDArray[Any]

    def __len__(self) -> int:
        return len(self.joints)

    def __getitem__(self, name: str) -> npt.NDArray[Any]:
        """A joint field (k, n) by its name, or one of the columns (k,)."""
        if name in (self.joints.dtype.names or ()):
            field: npt.NDArray[Any] = self.joints[name]
            return field
        if name in self.__dict__:
            column: npt.NDArray[Any] = self.__dict__[name]
            return column
        raise KeyError(name)


@dataclass(frozen=True, eq=False, repr=False)
class States(_Table):
    """k statuses of n joints, oldest first. states["position"] is an array (k, n), states["received"] one of (k,)."""

    joints: npt.NDArray[Any]
    """structured array (k, n) of all joint fields; values in the controller's units"""
    received: npt.NDArray[np.int64]
    """when the host had each one (k,), ns since the Unix epoch"""
    time: npt.NDArray[np.int64]
    """the controller's stamps (k,), as sent"""
    host_time: npt.NDArray[np.int64]
    """stamps of the commands that the controller had accepted last (k,), ns since the Unix epoch"""
    duration: npt.NDArray[np.float32]
    """durations that the controller reports (k,)"""
    left_out: int = 0
    """older statuses that were not kept"""

    def __repr__(self) -> str:
        return f"<velta.States: {self.joints.shape[0]} of {self.joints.shape[1]} joints>"


@dataclass(frozen=True, eq=False, repr=False)
class Commands(_Table):
    """k commands for n joints, oldest first. commands["order"] is an array (k, n), commands["sent"] one of (k,)."""

    joints: npt.NDArray[Any]
    """structured array (k, n): id, order, value1 to value4"""
    sent: npt.NDArray[np.int64]
    """when each one passed (k,), ns since the Unix epoch"""
    time: npt.NDArray[np.int64]
    """their own stamps (k,), ns since the Unix epoch"""
    arm_order: npt.NDArray[np.uint8]
    """codes of the arm commands (k,); 0 is none"""

    def __repr__(self) -> str:
        return f"<velta.Commands: {self.joints.shape[0]} for {self.joints.shape[1]} joints>"


class RecordedEvent(NamedTuple):
    """A change of the connection."""

    time: int
    """ns since the Unix epoch"""
    kind: str
    """"opened" or "closed\""""


@dataclass(frozen=True, eq=False, repr=False)
class Recording:
    """What passed on a link."""

    link: str
    """the controller's link"""
    joint_num: int
    """joints of the arm (n)"""
    states: States
    commands: Commands
    events: list[RecordedEvent]
    lost_bytes: int
    """bytes that belong to no good frame"""

    def __repr__(self) -> str:
        return f"<velta.Recording of {self.link}: {len(self.states)} statuses, {len(self.commands)} commands>"
