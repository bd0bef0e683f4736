# SPDX-License-Identifier: MIT
"""What the library's threads leave for Python: lines for the log, and tokens that coroutines wait for."""

from __future__ import annotations

import asyncio
import logging
import os
import threading
from typing import TYPE_CHECKING, Iterable

from velta import _velta

if TYPE_CHECKING:
    from velta._event import Event

logger = logging.getLogger("velta")
logger.addHandler(logging.NullHandler())

_lock = threading.Lock()
_waiting: dict[int, list[tuple[asyncio.AbstractEventLoop, asyncio.Future[None]]]] = {}
_thread: threading.Thread | None = None


def _renew_lock() -> None:
    global _lock
    _lock = threading.Lock()  # a thread that is gone may have held it


os.register_at_fork(after_in_child=_renew_lock)


def start() -> None:
    """Starts the thread that hands out notes, unless it runs; a forked child has none at first."""
    global _thread
    with _lock:
        if _thread is None or not _thread.is_alive():
            _thread = threading.Thread(target=_run, name="velta-notes", daemon=True)
            _thread.start()


def end() -> None:
    _velta._end_notes()
    if _thread is not None and _thread.is_alive():
        _thread.join(1.0)
    _velta._deliver_notes()


def _run() -> None:
    while _velta._wait_notes():
        _velta._deliver_notes()


def _finish(future: asyncio.Future[None]) -> None:
    if not future.done():
        future.set_result(None)


def deliver(notes: Iterable[tuple[int, bool, str]]) -> None:
    for token, is_error, text in notes:
        if token == 0:
            logger.log(logging.ERROR if is_error else logging.INFO, "%s", text)
            continue
        with _lock:
            waiting = _waiting.pop(token, [])
        for loop, future in waiting:
            try:
                loop.call_soon_threadsafe(_finish, future)
            except RuntimeError:  # the loop was closed
                pass


def _expect(token: int) -> asyncio.Future[None]:
    start()
    loop = asyncio.get_running_loop()
    future = loop.create_future()
    with _lock:
        _waiting.setdefault(token, []).append((loop, future))
    return future


async def wait_ticket(ticket: _velta.Ticket) -> bool:
    if ticket.outcome is _velta.Outcome.PENDING:
        done = _expect(ticket._watch())
        if ticket.outcome is _velta.Outcome.PENDING:  # else its note may have come before
            await done
    return ticket.wait(0)


async def next_event(events: _velta.EventIterator) -> Event:
    while True:
        done = _expect(events._watch())
        try:
            event = events._try()
        except StopIteration:
            raise StopAsyncIteration from None
        if event is not None:
            return event
        await done
