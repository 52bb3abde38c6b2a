import shutil
import tempfile
from collections.abc import Callable, Iterator
from contextlib import ExitStack
from pathlib import Path

import pytest

from korlo_settings import Client
from support import AioClient, AnyClient, MakeClient, Server

StartServer = Callable[..., Server]


@pytest.fixture
def folder() -> Iterator[Path]:
    """A folder whose path is short enough for a socket, and that every user may enter."""
    path = Path(tempfile.mkdtemp(prefix="korlo"))
    path.chmod(0o755)
    yield path
    shutil.rmtree(path)


@pytest.fixture
def start_server(folder: Path) -> Iterator[StartServer]:
    """Starts one server for the test, with options and files of its own."""
    with ExitStack() as stack:

        def start(*options: str, defaults: str = "", restricted: str = "") -> Server:
            server = Server(folder, *options, defaults=defaults, restricted=restricted)
            stack.callback(server.stop)
            server.start()
            return server

        yield start


@pytest.fixture
def server(start_server: StartServer) -> Server:
    return start_server()


@pytest.fixture(params=[Client, AioClient], ids=["blocking", "asyncio"])
def make_client(request: pytest.FixtureRequest) -> Iterator[MakeClient]:
    """Makes clients of either kind; they are closed at the end."""
    with ExitStack() as stack:

        def make(*arguments: object, **options: object) -> AnyClient:
            client: AnyClient = request.param(*arguments, **options)
            stack.enter_context(client)
            return client

        yield make
