"""What the tests share: the real server, one that misbehaves, and both clients behind one face."""

import asyncio
import os
import select
import signal
import socket
import subprocess
import threading
import time
from collections.abc import Awaitable, Callable, Iterator, Mapping
from pathlib import Path
from typing import Self, TypeVar

from korlo_settings import Change, Client, Watch, aio

T = TypeVar("T")
Groups = Mapping[str, Mapping[str, str]]

LIMIT = 30.0  # seconds, for what should take none


class Server:
    """A korlo-settings-server on a Unix-domain socket and on TCP, with files in a folder of its own."""

    def __init__(self, folder: Path, *options: str, defaults: str = "", restricted: str = "") -> None:
        self.folder = folder
        self.path = folder / "socket"
        self.address = f"unix:{self.path}"
        self.tcp_address = ""
        self.user_file = folder / "user.ini"
        self._defaults = folder / "defaults.ini"
        self._restricted = folder / "restricted.ini"
        self._defaults.write_text(defaults)
        self._restricted.write_text(restricted)
        self._options = options
        self._process: subprocess.Popen[bytes] | None = None

    def start(self) -> None:
        program = os.environ["KORLO_SETTINGS_SERVER"]
        files = ("--user", self.user_file, "--defaults", self._defaults, "--restricted", self._restricted)
        doors = ("--listen", self.address, "--listen", "127.0.0.1:0")
        self._process = subprocess.Popen([program, *doors, *files, *self._options], stdout=subprocess.PIPE, bufsize=0)
        assert self._process.stdout is not None
        assert self._line() == f"listening on {self.address}"
        self.tcp_address = self._line().removeprefix("listening on ")

    @property
    def pid(self) -> int:
        assert self._process is not None
        return self._process.pid

    def stop(self, how: signal.Signals = signal.SIGTERM) -> None:
        if self._process is None:
            return
        process, self._process = self._process, None
        process.send_signal(how)
        status = process.wait(LIMIT)
        assert process.stdout is not None
        process.stdout.close()
        assert status == (0 if how == signal.SIGTERM else -how)

    def _line(self) -> str:
        assert self._process is not None and self._process.stdout is not None
        assert select.select([self._process.stdout], [], [], LIMIT)[0], "the server does not start"
        return self._process.stdout.readline().decode().rstrip("\n")


Handler = Callable[[socket.socket], None]


class FakeServer:
    """Serves one connection after another by the given functions, on a thread of its own; then it is gone."""

    def __init__(self, folder: Path, *handlers: Handler) -> None:
        self.address = f"unix:{folder / 'fake'}"
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(str(folder / "fake"))
        self._listener.listen()
        self._handlers = handlers
        self._failure: BaseException | None = None
        self.served = 0
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()

    def __enter__(self) -> Self:
        return self

    def __exit__(self, kind: object, error: object, traceback: object) -> None:
        self._thread.join(LIMIT)
        assert not self._thread.is_alive(), f"only {self.served} clients came"
        if error is None and self._failure is not None:
            raise self._failure

    def _run(self) -> None:
        try:
            with self._listener:
                self._listener.settimeout(LIMIT)
                for handler in self._handlers:
                    connection = self._listener.accept()[0]
                    with connection:
                        connection.settimeout(LIMIT)
                        self.served += 1
                        handler(connection)
        except BaseException as failure:
            self._failure = failure


def read_request(connection: socket.socket, blocks: int) -> bytes:
    """What a client sends, up to the end of so many blocks."""
    request = b""
    while request.split(b"\n")[:-1].count(b".") < blocks:
        piece = connection.recv(1)
        if not piece:
            break
        request += piece
    return request


def answering(*answers: bytes, blocks: int = 1) -> Handler:
    """Answers a request with each of these, and then waits for the client to go."""

    def handle(connection: socket.socket) -> None:
        for answer in answers:
            read_request(connection, blocks)
            connection.sendall(answer)
        wait_for_end(connection)

    return handle


def wait_for_end(connection: socket.socket) -> None:
    try:
        while connection.recv(65536):
            pass
    except ConnectionResetError:
        pass


def eventually(is_so: Callable[[], bool]) -> None:
    """Waits for what no event tells of."""
    end = time.monotonic() + LIMIT
    while not is_so():
        assert time.monotonic() < end
        time.sleep(0.005)


class AioWatch:
    def __init__(self, runner: asyncio.Runner, watch: aio.Watch) -> None:
        self._runner = runner
        self._watch = watch

    def __iter__(self) -> Iterator[Change]:
        return self

    def __next__(self) -> Change:
        async def step() -> Change | None:
            async for change in self._watch:
                return change
            return None

        change = self._runner.run(step())
        if change is None:
            raise StopIteration
        return change

    def close(self) -> None:
        self._runner.run(self._watch.close())


class AioClient:
    """The asyncio client with the face of the blocking one, so that one test shows what both do."""

    def __init__(self, address: str | None = None, timeout: float = 15.0) -> None:
        self._runner = asyncio.Runner()
        self._client = aio.Client(address, timeout)
        self._is_over = False

    def __enter__(self) -> Self:
        return self

    def __exit__(self, kind: object, error: object, traceback: object) -> None:
        if not self._is_over:
            self._is_over = True
            self.close()
            self._runner.close()

    def _run(self, call: Awaitable[T]) -> T:
        async def awaited() -> T:
            return await call

        return self._runner.run(awaited())

    def close(self) -> None:
        self._run(self._client.close())

    def get(self, *names: str) -> dict[str, dict[str, str]]:
        return self._run(self._client.get(*names))

    def value(self, group: str, key: str) -> str | None:
        return self._run(self._client.value(group, key))

    def merge(self, changes: Groups, persist: bool = True) -> None:
        self._run(self._client.merge(changes, persist))

    def test_and_merge(self, expected: Groups, changes: Groups) -> bool:
        return self._run(self._client.test_and_merge(expected, changes))

    def overwrite(self, names: list[str], replacement: Groups = {}) -> None:
        self._run(self._client.overwrite(names, replacement))

    def erase(self, *names: str) -> None:
        self._run(self._client.erase(*names))

    def restore(self, *names: str) -> None:
        self._run(self._client.restore(*names))

    def watch(self, *names: str, initial: bool = True) -> AioWatch:
        async def subscribed() -> aio.Watch:
            return await self._client.watch(*names, initial=initial)

        return AioWatch(self._runner, self._runner.run(subscribed()))


AnyClient = Client | AioClient
AnyWatch = Watch | AioWatch
MakeClient = Callable[..., AnyClient]
