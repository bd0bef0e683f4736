# SPDX-License-Identifier: MIT
"""The session as Python sees it: what it adds to the compiled part."""

from __future__ import annotations

import atexit
import os
import threading
import weakref
from datetime import timedelta
from typing import Any, Callable, Iterable, Iterator, Union

from velta import _notes, _velta
from velta._errors import ConnectError, Error
from velta._event import Event
from velta._tables import Recording, States

Duration = Union[float, timedelta]

_sessions: weakref.WeakSet[Session] = weakref.WeakSet()
_sessions_lock = threading.Lock()
_is_ending = False


class Session(_velta.SessionBase):
    """A connection to one arm that may be left alone; velta.connect() makes it.

    It runs the loop in a thread of its own, which never waits for Python, reconnects, says what became of each command,
    and stops the arm when its host falls silent. Every method may be called from any thread, also from callbacks. Leaving
    its `with` block, or stop(), ends it. In a forked child it is dead: methods raise velta.Error.
    """

    def __init__(self, link: str, joints: int, **options: Any) -> None:
        super().__init__(link, joints, **options)
        self._name = f"{link}, {joints} joints"
        self._callbacks: dict[str, Callable[[Any], object] | None] = {}
        self._threads: dict[str, threading.Thread] = {}
        with _sessions_lock:
            if _is_ending:
                raise Error("the interpreter ends")
            _sessions.add(self)

    def __repr__(self) -> str:
        return f"<velta.Session: {self._name}>"

    def __enter__(self) -> Session:
        return self

    def __exit__(self, *_: object) -> None:
        self.stop()

    def stop(self) -> None:
        """Ends the session within 50 ms: what waits is discarded, iterators end. For good; nothing the second time."""
        self._stop()
        for thread in self._threads.values():
            if thread is not threading.current_thread():
                thread.join(1.0)  # a callback may take its time

    def drain(self) -> States:
        """All statuses since the last call, oldest first, at most status_buffer, as arrays.

        joints is a structured array of shape (k, n); received, time and host_time are int64 (k,).
        """
        return self._drain()

    def on_state(self, callback: Callable[[_velta.State], object] | None) -> None:
        """Calls back with every State from now on, in a thread of its own; replaces the earlier callback.

        What it raises is logged. A callback that is too slow misses the oldest statuses. None ends it.
        """
        self._call_back("state", callback, self._own_states)

    def on_event(self, callback: Callable[[Event], object] | None) -> None:
        """Calls back with every Event from now on, in order, in a thread of its own; replaces the earlier callback.

        What it raises is logged. None ends it.
        """
        self._call_back("event", callback, self._own_events)

    def _call_back(self, kind: str, callback: Callable[[Any], object] | None,
                   items: Callable[[], Iterator[Any]]) -> None:
        if callback is not None and not callable(callback):
            raise TypeError(f"a callback is called with each {kind}; {callback!r} cannot be")
        self._callbacks[kind] = callback
        if callback is None or kind in self._threads:
            return
        # It knows the callbacks and the feed, but not the session, which may go when its last user does.
        thread = threading.Thread(target=_run_callbacks, args=(items(), self._callbacks, kind), daemon=True,
                                  name=f"velta-{kind}")
        self._threads[kind] = thread
        thread.start()

    @property
    def statistics(self) -> dict[str, Any]:
        """What was received, sent and dropped, cycles, overruns, and the lateness of the loop in microseconds."""
        return self._statistics()

    def write_flight_record(self, path: str | os.PathLike[str]) -> None:
        """Writes what the flight recorder holds (option flight_recorder), as a recording. Raises velta.Error."""
        why = self._write_flight_record(os.fspath(path))
        if why:
            raise Error(why)


def _run_callbacks(items: Iterator[Any], callbacks: dict[str, Callable[[Any], object] | None], kind: str) -> None:
    for item in items:
        callback = callbacks[kind]
        if callback is None:
            continue
        try:
            callback(item)
        except BaseException:
            _notes.logger.exception("the %s callback raised", kind)
        del item, callback  # nothing is kept while it waits


def connect(
    link: str,
    joints: int,
    timeout: Duration | None = 5.0,
    *,
    on_event: Callable[[Event], object] | None = None,
    on_state: Callable[[_velta.State], object] | None = None,
    period: Duration = 0.001,
    dead_man: Duration = 0.0,
    silence: Duration = 0.5,
    ask: Duration = 0.1,
    on_loss: str = "discard",
    reconnect: bool = True,
    connect_timeout: Duration = 5.0,
    back_off: Duration = 0.1,
    back_off_limit: Duration = 5.0,
    stop: Iterable[_velta.SendPacket] = (),
    flight_recorder: Duration = 0.0,
    flight_record_path: str | os.PathLike[str] | None = None,
    priority: int = 0,
    processor: int = -1,
    lock_memory: bool = False,
    queue_size: int = 4096,
    status_buffer: int = 4096,
) -> Session:
    """Connects to an arm, and returns its Session when the first status is there.

    link                tcp://HOST:PORT, udp://HOST:PORT, serial:///dev/ttyX?baud=115200, or sim:
    joints              joints of the arm (n), 1 to 828, the same as the controller's
    timeout             how long to wait for the first status; 0 returns at once, None waits for ever
    on_event, on_state  callbacks that miss nothing from the start on; see Session.on_event and on_state
    period              of the loop
    dead_man            longest silence of the host after its first keep_alive(); 0 is off
    silence             without a status for so long the link is lost; 0 is never
    ask                 an idle command to a controller that is silent for so long; 0 is never
    on_loss             "discard": nothing given before a loss is sent after it; "keep": what waits is sent then
    reconnect           False: after a loss, or a first connection that fails, nothing is tried again
    connect_timeout     for one attempt over TCP
    back_off            before the second attempt; then doubled, up to back_off_limit
    stop                frames that stop the arm; none: cancel trajectories, then velocity 0 for joints in velocity mode
    flight_recorder     how much of the traffic is kept in memory; 0 is off
    flight_record_path  where it is written on loss, give-up and dead-man; None is never
    priority            SCHED_FIFO priority of the loop, 1 to 99; 0 is the ordinary scheduler
    processor           that the loop is bound to; -1 is any
    lock_memory         mlockall for the whole process
    queue_size          commands that may wait, per source
    status_buffer       statuses that drain() may return at once

    Durations are seconds or a timedelta. Raises ConnectError, with the reason, when no status came in time; ValueError
    for options that no arm could be driven with.
    """
    session = Session(
        link, joints, period=period, dead_man=dead_man, silence=silence, ask=ask, on_loss=on_loss, reconnect=reconnect,
        connect_timeout=connect_timeout, back_off=back_off, back_off_limit=back_off_limit, stop=stop,
        flight_recorder=flight_recorder, flight_record_path=flight_record_path, priority=priority, processor=processor,
        lock_memory=lock_memory, queue_size=queue_size, status_buffer=status_buffer,
    )
    try:
        _notes.start()
        session.on_event(on_event)
        session.on_state(on_state)
        session.start()
        if timeout or timeout is None:
            why = session._wait_connected(timeout)
            if why:
                raise ConnectError(f"{link}: {why}")
    except BaseException:
        session.stop()
        raise
    return session


def read_recording(path: str | os.PathLike[str]) -> Recording:
    """Reads a recording of `velta record` or of a flight recorder as arrays. Raises RecordingError."""
    return _velta._read_recording(os.fspath(path))


def _end() -> None:
    """Before the interpreter ends: nothing of velta runs after this, and no callback waits for Python."""
    global _is_ending
    with _sessions_lock:
        _is_ending = True
        sessions = list(_sessions)
    for session in sessions:
        if session._is_of_this_process():
            session.stop()
    _notes.end()
    _velta._ending()


def _renew_lock() -> None:
    global _sessions_lock
    _sessions_lock = threading.Lock()  # a thread that is gone may have held it


atexit.register(_end)
os.register_at_fork(after_in_child=_renew_lock)
