"""The blocking client."""

import contextlib
import logging
import os
import select
import socket
import threading
import time
import weakref
from collections.abc import Iterable, Iterator, Mapping
from types import TracebackType
from typing import Any, Self, TypeVar

from . import _calls
from ._address import Address, Resolved, closed, connect_failed, find_server, new_socket, numeric, parse_address
from ._calls import Attempt, Backoff, Call, Change, TimeIsUp, View
from .errors import ProtocolError, Refused, SettingsError
from .protocol import Message, Notification, Receiver, Settings

T = TypeVar("T")

_logger = logging.getLogger("korlo_settings")
_PIECE = 65536


def _left(deadline: float) -> float:
    """The seconds until then."""
    left = deadline - time.monotonic()
    if left <= 0:
        raise TimeIsUp
    return left


class _Wire:
    """At most one connection to an address, used by one thread at a time, which any other thread may end for good.

    The thread that uses it calls `enter` first and `leave` last. In between only this thread closes the socket; another
    one that calls `close` shuts it down, which ends every wait for it, and leaves the closing to `leave`. So no thread
    ever waits for a descriptor that is somebody else's already.
    """

    def __init__(self, address: Address | None) -> None:
        self._given = address
        self.address = address or find_server()
        self.receiver = Receiver()
        self.has_received = False  # since the connection was made or last asked
        self._input = select.poll()

        self._state = threading.RLock()  # held for moments; taken again by a signal handler that calls close
        self._socket: socket.socket | None = None
        self._is_used = False
        self._closing = threading.Event()
        self._process = os.getpid()

    @property
    def is_closed(self) -> bool:
        return self._closing.is_set()

    @property
    def is_open(self) -> bool:
        return self._socket is not None

    def enter(self) -> None:
        with self._state:
            if self.is_closed:
                raise closed(self.address)
            if self._process != os.getpid():  # after a fork the connection is the parent's
                self._process = os.getpid()
                self.drop()
            self._is_used = True

    def leave(self) -> None:
        with self._state:
            self._is_used = False
            if self.is_closed:
                self.drop()

    def close(self) -> None:
        """From any thread: ends the connection and whatever waits for it, for good."""
        with self._state:
            self._closing.set()
            if self._is_used and self._socket is not None and self._process == os.getpid():
                try:
                    self._socket.shutdown(socket.SHUT_RDWR)
                except OSError:
                    pass  # not connected yet, or no more
            elif not self._is_used:
                self.drop()

    def drop(self) -> None:
        """Closes the connection; the next `open` makes another one."""
        with self._state:
            if self._socket is not None:
                self._socket.close()
            self._socket = None

    def open(self, deadline: float) -> None:
        self.address = self._given or find_server()
        try:
            if self.address.path is not None:
                self._connect_path(os.fsencode(self.address.path), deadline)
            else:
                self._connect_host(numeric(self.address) or self._resolve(deadline), deadline)
        except BaseException:
            self.drop()
            raise
        self.receiver = Receiver()
        self._input = select.poll()
        self._input.register(self._connected(), select.POLLIN)

    def is_out_of_step(self) -> bool:
        """Whether there is anything to read before anything was asked: the connection's end, or nobody's answer."""
        if not self.receiver.is_between_messages:
            return True
        try:
            self._connected().recv(1, socket.MSG_PEEK)
        except BlockingIOError:
            return False
        except OSError:
            pass
        return True

    def send(self, data: bytes, deadline: float) -> None:
        self.has_received = False
        rest = memoryview(data)
        while rest:
            try:
                rest = rest[self._connected().send(rest) :]
            except BlockingIOError:
                self._wait_for_output(deadline)

    def receive(self, deadline: float | None) -> None:
        """Waits for something and passes it to the receiver. Without a deadline for ever."""
        connection = self._connected()
        while True:
            self._input.poll(None if deadline is None else 1000 * _left(deadline))
            try:
                data = connection.recv(_PIECE)
                break
            except BlockingIOError:
                pass
        if not data:
            raise EOFError
        self.has_received = True
        self.receiver.receive(data)

    def answer(self, deadline: float) -> Message:
        """The next message that is no notification."""
        while True:
            message = self.receiver.next_message()
            if message is None:
                self.receive(deadline)
            elif not isinstance(message, Notification):
                return message

    def pause(self, seconds: float) -> None:
        """Waits; raises when the wire is closed."""
        if self._closing.wait(seconds):
            raise closed(self.address)

    def _connected(self) -> socket.socket:
        if self._socket is None:
            raise EOFError
        return self._socket

    def _begin(self, family: int, kind: int = socket.SOCK_STREAM, protocol: int = 0) -> socket.socket:
        """A socket that `close` ends already while it connects."""
        connection = new_socket(family, kind, protocol)
        with self._state:
            self._socket = connection
            if self.is_closed:
                raise closed(self.address)
        return connection

    def _connect_path(self, path: bytes, deadline: float) -> None:
        try:
            connection = self._begin(socket.AF_UNIX)
            while True:
                try:
                    return connection.connect(path)
                except BlockingIOError:  # more clients wait there than the server has accepted
                    self.pause(min(0.01, _left(deadline)))
        except SettingsError:
            raise
        except OSError as reason:
            raise connect_failed(self.address, reason) from reason

    def _connect_host(self, candidates: list[Resolved], deadline: float) -> None:
        """Tries one after the other; each gets its share of the time."""
        failure: Exception = TimeIsUp()
        for index, (family, kind, protocol, _, target) in enumerate(candidates):
            share = _left(deadline) / (len(candidates) - index)
            try:
                connection = self._begin(family, kind, protocol)
                return self._connect_address(connection, target, time.monotonic() + share)
            except SettingsError:
                raise
            except (OSError, TimeIsUp) as reason:
                failure = reason
                self.drop()
        if isinstance(failure, TimeIsUp):
            raise failure
        raise connect_failed(self.address, failure) from failure

    def _connect_address(self, connection: socket.socket, target: Any, deadline: float) -> None:
        try:
            connection.connect(target)
        except BlockingIOError:
            self._wait_for_output(deadline)
            if code := connection.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR):
                raise OSError(code, os.strerror(code)) from None

    def _wait_for_output(self, deadline: float) -> None:
        output = select.poll()
        output.register(self._connected(), select.POLLOUT)
        if not output.poll(1000 * _left(deadline)):
            raise TimeIsUp

    def _resolve(self, deadline: float) -> list[Resolved]:
        """Asks the system for a host's name, on a thread of its own since this may take longer than we may wait."""
        address = self.address
        found: list[Resolved] = []
        failures: list[Exception] = []

        def ask() -> None:
            try:
                found.extend(socket.getaddrinfo(address.host, address.port, type=socket.SOCK_STREAM))
            except (OSError, UnicodeError) as error:
                failures.append(error)

        resolver = threading.Thread(target=ask, name="korlo_settings resolver", daemon=True)
        resolver.start()
        resolver.join(_left(deadline))
        if failures:
            raise connect_failed(address, failures[0]) from failures[0]
        if resolver.is_alive():
            raise TimeIsUp
        return found


class Client:
    """A client of the settings server that blocks its caller.

    @param address `unix:PATH`, `HOST:PORT` or `[IPV6]:PORT`; None for the server's usual socket,
        `/run/korlo-settings/socket`, if there is one, else `127.0.0.1:4711`.
    @param timeout the seconds that any call may take, connecting and waiting for other threads' calls included.

    Connects at the first call. When anything fails inside a call the connection is closed, so that no call ever gets
    another's answer, and the next call makes a new one. A read that finds the connection lost since the call before is
    tried once more, a change never. A change returns when the server has carried it out; it raises `Refused` when the
    server's access rules do not allow it, and `RestrictedGroup` when it names a restricted group.

    Names of groups are exact, or patterns in which `*` stands for any characters, or none. Text is `str` by UTF-8 with
    `surrogateescape`, so that every byte survives.

    Thread safety: all methods, from any thread; the calls of several threads wait for one another. A forked child makes
    a connection of its own.
    """

    def __init__(self, address: str | None = None, timeout: float = 15.0) -> None:
        self._address = None if address is None else parse_address(address)
        self._timeout = _calls.check_timeout(timeout)
        self._wire = _Wire(self._address)
        self._turn = threading.Lock()  # held during a call; nobody takes it inside the wire's own lock
        self._watches: weakref.WeakSet[Watch] = weakref.WeakSet()
        self._watches_lock = threading.Lock()

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.close()

    def close(self) -> None:
        """Ends the connection and every watch, also those that another thread waits in. The client is of no more use."""
        self._wire.close()
        with self._watches_lock:
            watches = list(self._watches)
        for watch in watches:
            watch.close()

    def get(self, *names: str) -> Settings:
        """The groups that these names and patterns select, with all their values. A name that selects none is left out."""
        return self._run(_calls.get(names))

    def value(self, group: str, key: str) -> str | None:
        """One value, or None if the group has no such key."""
        return self._run(_calls.value(group, key))

    def merge(self, changes: Mapping[str, Mapping[str, str]], persist: bool = True) -> None:
        """Sets keys and leaves all others. Without `persist` the change is gone when the server ends."""
        self._run(_calls.merge(changes, persist))

    def test_and_merge(
        self, expected: Mapping[str, Mapping[str, str]], changes: Mapping[str, Mapping[str, str]]
    ) -> bool:
        """Sets keys if the settings hold every value of `expected`, with nobody's change in between; says whether."""
        return self._run(_calls.test_and_merge(expected, changes))

    def overwrite(self, names: Iterable[str], replacement: Mapping[str, Mapping[str, str]] = {}) -> None:
        """Removes the groups that the names and patterns select, and merges the replacement."""
        self._run(_calls.overwrite(names, replacement))

    def erase(self, *names: str) -> None:
        """Removes the groups for good: their defaults do not return at the next start of the server."""
        self._run(_calls.overwrite(names, {}, "erase"))

    def restore(self, *names: str) -> None:
        """Returns the groups to the defaults of the device."""
        self._run(_calls.restore(names))

    def watch(self, *names: str, initial: bool = True) -> "Watch":
        """Subscribes, and returns an iterator of the changes of these groups; the first is the present state.

        Raises when there is no server. From then on the iterator survives its restarts: it connects again by itself and
        then yields what differs, erased groups included. Without `initial` it begins with the first change from now on.
        """
        watch = Watch(self._address, self._timeout, View(names, initial))
        with self._watches_lock:
            self._watches.add(watch)
        if self._wire.is_closed:  # perhaps too late for close to see this watch
            watch.close()
            raise closed(self._wire.address)
        return watch

    def _run(self, call: Call[T]) -> T:
        deadline = time.monotonic() + self._timeout
        wire = self._wire
        try:
            if not self._turn.acquire(timeout=self._timeout):
                raise TimeIsUp
            try:
                wire.enter()
                try:
                    return self._exchange(call, deadline)
                finally:
                    wire.leave()
            finally:
                self._turn.release()
        except Refused:
            raise
        except (OSError, EOFError, TimeIsUp, SettingsError) as reason:
            failure = call.failure(reason, wire.address, self._timeout, wire.is_closed)
            if failure is reason:
                raise
            raise failure from reason

    def _exchange(self, call: Call[T], deadline: float) -> T:
        wire = self._wire
        request = next(call.steps)
        try:
            answer = self._first_answer(call, request, deadline)
            while True:
                try:
                    request = call.steps.send(answer)
                except StopIteration as done:
                    result: T = done.value
                    return result
                wire.send(request, deadline)
                answer = wire.answer(deadline)
        except Refused:
            raise  # a whole answer
        except BaseException:
            wire.drop()
            raise

    def _first_answer(self, call: Call[T], request: bytes, deadline: float) -> Message:
        wire = self._wire
        was_idle = wire.is_open
        if was_idle and wire.is_out_of_step():
            if call.may_change:
                raise EOFError
            wire.drop()
            was_idle = False
        if not was_idle:
            wire.open(deadline)
        call.is_sent = True
        try:
            wire.send(request, deadline)
            return wire.answer(deadline)
        except (OSError, EOFError):
            if not was_idle or call.may_change or wire.has_received:
                raise
        wire.drop()
        wire.open(deadline)
        wire.send(request, deadline)
        return wire.answer(deadline)


class Watch(Iterator[Change]):
    """The changes of some groups, one after another, over a connection of its own. Made by `Client.watch`.

    Waits for the next change for as long as it takes; `close`, from any thread, ends it. What the program does not take
    in time the server does not keep without limit: the watch then connects again, and yields what differs.

    Thread safety: all methods, from any thread; each change goes to one of the threads that iterate.
    """

    def __init__(self, address: Address | None, timeout: float, view: View) -> None:
        self._wire = _Wire(address)
        self._timeout = timeout
        self._turn = threading.Lock()  # held by the thread that waits for a change
        self._view = view
        self._backoff = Backoff()
        self._next = self._subscribe()

    def __iter__(self) -> Self:
        return self

    def __next__(self) -> Change:
        with self._turn:
            try:
                self._wire.enter()
                try:
                    return self._wait()
                finally:
                    self._wire.leave()
            except SettingsError:
                if self._wire.is_closed:
                    raise StopIteration from None
                raise

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        self.close()

    def __del__(self) -> None:
        if hasattr(self, "_wire"):
            self._wire.close()

    def close(self) -> None:
        """Ends the iteration, from any thread."""
        self._wire.close()

    def _wait(self) -> Change:
        while True:
            if self._next is not None:
                change, self._next = self._next, None
                return change
            try:
                if not self._wire.is_open:  # after a failure, or in a forked child
                    self._next = self._subscribe()
                else:
                    self._next = self._view.update(self._notification())
            except SettingsError as reason:
                self._recover(reason)

    def _recover(self, reason: SettingsError) -> None:
        self._wire.drop()
        if self._wire.is_closed:
            raise closed(self._wire.address)
        delay = self._backoff.delay(time.monotonic())
        _logger.warning("%s; the next attempt is made in %.1f s", reason, delay)
        self._wire.pause(delay)

    def _subscribe(self) -> Change | None:
        """Connects. Returns the first change, or what differs since the connection before."""
        attempt = Attempt("watch", False)
        with self._failing(attempt):
            deadline = time.monotonic() + self._timeout
            self._wire.open(deadline)
            attempt.is_sent = True
            self._wire.send(self._view.request, deadline)
            settings = _calls.settings_of(self._wire.answer(deadline))
        self._backoff.connected(time.monotonic())
        return self._view.refresh(settings)

    def _notification(self) -> Notification:
        """The next one. It may be long in coming, but once it has begun its end may not."""
        with self._failing(Attempt("watch", False)):
            deadline = None
            while (message := self._wire.receiver.next_message()) is None:
                if deadline is None and not self._wire.receiver.is_between_messages:
                    deadline = time.monotonic() + self._timeout
                self._wire.receive(deadline)
            if not isinstance(message, Notification):
                raise ProtocolError("another message than a notification came")
            return message

    @contextlib.contextmanager
    def _failing(self, attempt: Attempt) -> Iterator[None]:
        """Closes the connection after any failure, and says what the caller has to hear of it."""
        wire = self._wire
        try:
            yield
        except (OSError, EOFError, TimeIsUp, SettingsError) as reason:
            wire.drop()
            failure = attempt.failure(reason, wire.address, self._timeout, wire.is_closed)
            if failure is reason:
                raise
            raise failure from reason
        except BaseException:
            wire.drop()
            raise
