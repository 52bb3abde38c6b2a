"""The client for asyncio: the methods of `korlo_settings.Client`, with `await` and `async for`.

    async with korlo_settings.aio.Client() as client:
        await client.merge({"Audio": {"volume": "7"}})
        async for change in client.watch("Audio"):
            print(change.settings)
"""

import asyncio
import contextlib
import logging
import os
import socket
import time
import weakref
from collections.abc import AsyncIterator, Callable, Generator, Iterable, Iterator, Mapping
from types import TracebackType
from typing import Any, Self, TypeVar

from . import _calls
from ._address import Address, Resolved, closed, connect_failed, find_server, new_socket, numeric, parse_address
from ._calls import Attempt, Backoff, Call, Change, TimeIsUp, View
from .errors import ProtocolError, Refused, SettingsError
from .protocol import Message, Notification, Receiver, Settings

__all__ = ["Change", "Client", "Watch"]

T = TypeVar("T")

_logger = logging.getLogger("korlo_settings")
_PIECE = 65536


class _Wire:
    """At most one connection to an address, used by one task at a time, which any other task may end for good.

    A wait for the socket takes nothing from it: a task that is cancelled in one has lost nothing. Only the task that
    uses the connection closes its socket, so that the loop never watches a descriptor that is somebody else's already.
    """

    def __init__(self, address: Address | None) -> None:
        self._given = address
        self.address = address or find_server()
        self.receiver = Receiver()
        self.has_received = False  # since the connection was made or last asked
        self.is_closed = False
        self._is_used = False
        self._socket: socket.socket | None = None
        self._pausing: asyncio.Future[None] | None = None
        self._process = os.getpid()

    @property
    def is_open(self) -> bool:
        return self._socket is not None

    def enter(self) -> None:
        if self.is_closed:
            raise closed(self.address)
        if self._process != os.getpid():  # after a fork the connection is the parent's
            self._process = os.getpid()
            self.drop()
        self._is_used = True

    def leave(self) -> None:
        self._is_used = False
        if self.is_closed:
            self.drop()

    def close(self) -> None:
        """Ends the connection and whatever waits for it, for good."""
        self.is_closed = True
        if not self._is_used:
            self.drop()
            return
        if self._pausing is not None and not self._pausing.done():
            self._pausing.set_result(None)
        if self._socket is not None and self._process == os.getpid():
            with contextlib.suppress(OSError):  # not connected yet, or no more
                self._socket.shutdown(socket.SHUT_RDWR)

    def drop(self) -> None:
        """Closes the connection; the next `open` makes another one."""
        if self._socket is not None:
            self._socket.close()
        self._socket = None

    async def open(self, deadline: float) -> None:
        self.address = self._given or find_server()
        try:
            if self.address.path is not None:
                await self._connect_path(os.fsencode(self.address.path))
            else:
                await self._connect_host(numeric(self.address) or await self._resolve(), deadline)
        except BaseException:
            self.drop()
            raise
        self.receiver = Receiver()

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

    async def send(self, data: bytes) -> None:
        self.has_received = False
        rest = memoryview(data)
        while rest:
            try:
                rest = rest[self._connected().send(rest) :]
            except BlockingIOError:
                await self._output()

    async def receive(self) -> None:
        """Waits for something and passes it to the receiver."""
        connection = self._connected()
        while True:
            loop = asyncio.get_running_loop()
            await self._ready(loop.add_reader, loop.remove_reader)
            try:
                data = connection.recv(_PIECE)
                break
            except BlockingIOError:
                pass
        if not data:
            raise EOFError
        self.has_received = True
        self.receiver.receive(data)

    async def answer(self) -> Message:
        """The next message that is no notification."""
        while True:
            message = self.receiver.next_message()
            if message is None:
                await self.receive()
            elif not isinstance(message, Notification):
                return message

    async def pause(self, seconds: float) -> None:
        """Waits; raises when the wire is closed."""
        if not self.is_closed:
            self._pausing = asyncio.get_running_loop().create_future()
            try:
                async with asyncio.timeout(seconds):
                    await self._pausing
            except TimeoutError:
                pass
            finally:
                self._pausing = None
        if self.is_closed:
            raise closed(self.address)

    def _connected(self) -> socket.socket:
        if self._socket is None:
            raise EOFError
        return self._socket

    async def _output(self) -> None:
        loop = asyncio.get_running_loop()
        await self._ready(loop.add_writer, loop.remove_writer)

    async def _ready(self, add: Callable[..., object], remove: Callable[[int], object]) -> None:
        """Waits until the socket can be read, or written."""
        ready = asyncio.get_running_loop().create_future()
        descriptor = self._connected().fileno()
        add(descriptor, _set_result, ready)
        try:
            await ready
        finally:
            remove(descriptor)

    def _begin(self, family: int, kind: int = socket.SOCK_STREAM, protocol: int = 0) -> socket.socket:
        if self.is_closed:
            raise closed(self.address)
        self._socket = new_socket(family, kind, protocol)
        return self._socket

    async def _connect_path(self, path: bytes) -> None:
        try:
            connection = self._begin(socket.AF_UNIX)
            while True:
                try:
                    return connection.connect(path)
                except BlockingIOError:  # more clients wait there than the server has accepted
                    await self.pause(0.01)
        except SettingsError:
            raise
        except OSError as reason:
            raise connect_failed(self.address, reason) from reason

    async def _connect_host(self, candidates: list[Resolved], deadline: float) -> None:
        """Tries one after the other; each gets its share of the time."""
        loop = asyncio.get_running_loop()
        failure: Exception = TimeIsUp()
        for index, (family, kind, protocol, _, target) in enumerate(candidates):
            share = (deadline - loop.time()) / (len(candidates) - index)
            try:
                connection = self._begin(family, kind, protocol)
                async with _time_limit(loop.time() + share):
                    return await self._connect_address(connection, target)
            except SettingsError:
                raise
            except (OSError, TimeIsUp) as reason:
                failure = reason
                self.drop()
        if isinstance(failure, TimeIsUp):
            raise failure
        raise connect_failed(self.address, failure) from failure

    async def _connect_address(self, connection: socket.socket, target: Any) -> None:
        try:
            connection.connect(target)
        except BlockingIOError:
            await self._output()
            if code := connection.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR):
                raise OSError(code, os.strerror(code)) from None

    async def _resolve(self) -> list[Resolved]:
        loop = asyncio.get_running_loop()
        try:
            found = await loop.getaddrinfo(self.address.host, self.address.port, type=socket.SOCK_STREAM)
        except (OSError, UnicodeError) as reason:
            raise connect_failed(self.address, reason) from reason
        return list(found)


def _set_result(future: asyncio.Future[None]) -> None:
    if not future.done():
        future.set_result(None)


@contextlib.asynccontextmanager
async def _time_limit(deadline: float | None) -> AsyncIterator[None]:
    """Raises `TimeIsUp` then."""
    limit = asyncio.timeout_at(deadline)
    try:
        async with limit:
            yield
    except TimeoutError as error:
        if limit.expired() and not isinstance(error, SettingsError):
            raise TimeIsUp from None
        raise


class Client:
    """A client of the settings server for asyncio.

    Address, time-out, failures, names and text are as for `korlo_settings.Client`. A call that is cancelled closes the
    connection, so that no later call gets its answer; a change that was cancelled may or may not be made.

    Thread safety: none; one event loop at a time. Tasks share a client; their calls wait for one another.
    """

    def __init__(self, address: str | None = None, timeout: float = 15.0) -> None:
        self._address = None if address is None else parse_address(address)
        self._timeout = _calls.check_timeout(timeout)
        self._wire = _Wire(self._address)
        self._turn = asyncio.Lock()  # held during a call
        self._watches: weakref.WeakSet[Watch] = weakref.WeakSet()

    async def __aenter__(self) -> Self:
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        await self.close()

    async def close(self) -> None:
        """Ends the connection and every watch, also those that another task waits in. The client is of no more use."""
        self._wire.close()
        for watch in list(self._watches):
            await watch.close()

    async def get(self, *names: str) -> Settings:
        """The groups that these names and patterns select, with all their values. A name that selects none is left out."""
        return await self._run(_calls.get(names))

    async def value(self, group: str, key: str) -> str | None:
        """One value, or None if the group has no such key."""
        return await self._run(_calls.value(group, key))

    async def merge(self, changes: Mapping[str, Mapping[str, str]], persist: bool = True) -> None:
        """Sets keys and leaves all others. Without `persist` the change is gone when the server ends."""
        await self._run(_calls.merge(changes, persist))

    async def test_and_merge(
        self, expected: Mapping[str, Mapping[str, str]], changes: Mapping[str, Mapping[str, str]]
    ) -> bool:
        """Sets keys if the settings hold every value of `expected`, with nobody's change in between; says whether."""
        return await self._run(_calls.test_and_merge(expected, changes))

    async def overwrite(self, names: Iterable[str], replacement: Mapping[str, Mapping[str, str]] = {}) -> None:
        """Removes the groups that the names and patterns select, and merges the replacement."""
        await self._run(_calls.overwrite(names, replacement))

    async def erase(self, *names: str) -> None:
        """Removes the groups for good: their defaults do not return at the next start of the server."""
        await self._run(_calls.overwrite(names, {}, "erase"))

    async def restore(self, *names: str) -> None:
        """Returns the groups to the defaults of the device."""
        await self._run(_calls.restore(names))

    def watch(self, *names: str, initial: bool = True) -> "Watch":
        """An asynchronous iterator of the changes of these groups; the first is the present state.

        `async for change in client.watch(...)` subscribes at its first step, `watch = await client.watch(...)` at once;
        either raises when there is no server then. From then on the iterator survives its restarts: it connects again by
        itself and then yields what differs, erased groups included. Without `initial` it begins with the first change.
        """
        if self._wire.is_closed:
            raise closed(self._wire.address)
        watch = Watch(self._address, self._timeout, View(names, initial))
        self._watches.add(watch)
        return watch

    async def _run(self, call: Call[T]) -> T:
        wire = self._wire
        deadline = asyncio.get_running_loop().time() + self._timeout
        limit = asyncio.timeout_at(deadline)
        try:
            async with limit, self._turn:
                wire.enter()
                try:
                    return await self._exchange(call, deadline)
                finally:
                    wire.leave()
        except Refused:
            raise
        except (OSError, EOFError, TimeIsUp, SettingsError) as reason:
            is_late = limit.expired() and type(reason) is TimeoutError
            failure = call.failure(TimeIsUp() if is_late else reason, wire.address, self._timeout, wire.is_closed)
            if failure is reason:
                raise
            raise failure from reason

    async def _exchange(self, call: Call[T], deadline: float) -> T:
        wire = self._wire
        request = next(call.steps)
        try:
            answer = await self._first_answer(call, request, deadline)
            while True:
                try:
                    request = call.steps.send(answer)
                except StopIteration as done:
                    result: T = done.value
                    return result
                await wire.send(request)
                answer = await wire.answer()
        except Refused:
            raise  # a whole answer
        except BaseException:
            wire.drop()
            raise

    async def _first_answer(self, call: Call[T], request: bytes, deadline: float) -> Message:
        wire = self._wire
        was_idle = wire.is_open
        if was_idle and wire.is_out_of_step():
            if call.may_change:
                raise EOFError
            wire.drop()
            was_idle = False
        if not was_idle:
            await wire.open(deadline)
        call.is_sent = True
        try:
            await wire.send(request)
            return await wire.answer()
        except (OSError, EOFError):
            if not was_idle or call.may_change or wire.has_received:
                raise
        wire.drop()
        await wire.open(deadline)
        await wire.send(request)
        return await wire.answer()


class Watch(AsyncIterator[Change]):
    """The changes of some groups, one after another, over a connection of its own. Made by `Client.watch`.

    Waits for the next change for as long as it takes; `close`, from any task, ends it. A step that is cancelled loses no
    change: the next one goes on where it was. What the program does not take in time the server does not keep without
    limit: the watch then connects again, and yields what differs.

    Thread safety: none; one event loop at a time. Of several tasks that iterate, each change goes to one.
    """

    def __init__(self, address: Address | None, timeout: float, view: View) -> None:
        self._wire = _Wire(address)
        self._timeout = timeout
        self._turn = asyncio.Lock()  # held by the task that waits for a change
        self._view = view
        self._backoff = Backoff()
        self._is_subscribed = False  # has been once
        self._next: Change | None = None

    def __await__(self) -> Generator[Any, None, Self]:
        return self.__aenter__().__await__()

    async def __aenter__(self) -> Self:
        async with self._turn:
            with self._using():
                await self._begin()
        return self

    async def __aexit__(
        self, kind: type[BaseException] | None, error: BaseException | None, traceback: TracebackType | None
    ) -> None:
        await self.close()

    def __aiter__(self) -> Self:
        return self

    async def __anext__(self) -> Change:
        async with self._turn:
            try:
                with self._using():
                    await self._begin()
                    return await self._wait()
            except SettingsError:
                if self._wire.is_closed:
                    raise StopAsyncIteration from None
                raise

    def __del__(self) -> None:
        if hasattr(self, "_wire"):
            self._wire.close()

    async def close(self) -> None:
        """Ends the iteration, from any task."""
        self._wire.close()

    @contextlib.contextmanager
    def _using(self) -> Iterator[None]:
        self._wire.enter()
        try:
            yield
        finally:
            self._wire.leave()

    async def _begin(self) -> None:
        if not self._is_subscribed:
            self._next = await self._subscribe()
            self._is_subscribed = True

    async def _wait(self) -> Change:
        while True:
            if self._next is not None:
                change, self._next = self._next, None
                return change
            try:
                if not self._wire.is_open:  # after a failure, or in a forked child
                    self._next = await self._subscribe()
                else:
                    self._next = self._view.update(await self._notification())
            except SettingsError as reason:
                await self._recover(reason)

    async def _recover(self, reason: SettingsError) -> None:
        self._wire.drop()
        if self._wire.is_closed:
            raise closed(self._wire.address)
        delay = self._backoff.delay(time.monotonic())
        _logger.warning("%s; the next attempt is made in %.1f s", reason, delay)
        await self._wire.pause(delay)

    async def _subscribe(self) -> Change | None:
        """Connects. Returns the first change, or what differs since the connection before."""
        attempt = Attempt("watch", False)
        deadline = asyncio.get_running_loop().time() + self._timeout
        try:
            with self._failing(attempt):
                async with _time_limit(deadline):
                    await self._wire.open(deadline)
                    attempt.is_sent = True
                    await self._wire.send(self._view.request)
                    settings = _calls.settings_of(await self._wire.answer())
        except BaseException:
            self._wire.drop()
            raise
        self._backoff.connected(time.monotonic())
        return self._view.refresh(settings)

    async def _notification(self) -> Notification:
        """The next one. It may be long in coming, but once it has begun its end may not."""
        with self._failing(Attempt("watch", False)):
            deadline = None
            while (message := self._wire.receiver.next_message()) is None:
                if deadline is None and not self._wire.receiver.is_between_messages:
                    deadline = asyncio.get_running_loop().time() + self._timeout
                async with _time_limit(deadline):
                    await self._wire.receive()
            if not isinstance(message, Notification):
                raise ProtocolError("another message than a notification came")
            return message

    @contextlib.contextmanager
    def _failing(self, attempt: Attempt) -> Iterator[None]:
        """Closes the connection after a failure, and says what the caller has to hear of it."""
        wire = self._wire
        try:
            yield
        except (OSError, EOFError, TimeIsUp, SettingsError) as reason:
            wire.drop()
            failure = attempt.failure(reason, wire.address, self._timeout, wire.is_closed)
            if failure is reason:
                raise
            raise failure from reason
