"""Servers that misbehave, and connections that break: each call gets its own answer, or one clear failure in time."""

import os
import signal
import socket
import threading
import time
from collections.abc import Callable
from pathlib import Path

import pytest

from korlo_settings import AnswerTimeout, Client, ConnectionLost, ProtocolError, SettingsError
from support import (
    FakeServer,
    MakeClient,
    Server,
    answering,
    eventually,
    read_request,
    wait_for_end,
)

AUDIO = b"data\n[Audio]\nvolume=3\n.\n"
EMPTY = b"data\n.\n"


@pytest.mark.parametrize("length", range(len(AUDIO)))
def test_a_cut_answer_is_none(make_client: MakeClient, folder: Path, length: int) -> None:
    def cut(connection: socket.socket) -> None:
        read_request(connection, 1)
        connection.sendall(AUDIO[:length])

    with FakeServer(folder, cut, answering(AUDIO)) as fake:
        with make_client(fake.address) as client:
            with pytest.raises(ConnectionLost, match="get failed at .*; call again"):
                client.get("Audio")
            assert client.get("Audio") == {"Audio": {"volume": "3"}}


@pytest.mark.parametrize(
    "nonsense",
    [
        b"HTTP/1.1 400 Bad Request\r\n\r\n",
        b"\n",
        b"DATA\n.\n",
        b"data \n.\n",
        b"result\nok\n",
        b"data\nno group\n.\n",
        b"data\nkey=value\n.\n",
        b"data\n[open\n.\n",
        b'data\n[a]\nk="\n.\n',
        b'data\n[a]\nk="\\q"\n.\n',
        b'data\n[a]\nk="a" b\n.\n',
        b"data\n[a]\n=v\n.\n",
    ],
)
def test_an_answer_that_makes_no_sense_is_told(make_client: MakeClient, folder: Path, nonsense: bytes) -> None:
    with FakeServer(folder, answering(nonsense), answering(AUDIO)) as fake:
        with make_client(fake.address) as client:
            with pytest.raises(ProtocolError, match="check that a settings server, and one that is not older"):
                client.get("Audio")
            assert client.value("Audio", "volume") == "3"


@pytest.mark.parametrize("outcome", [b"OK\n", b"ok \n", b"\n", b"maybe\n"])
def test_a_result_is_ok_or_failure(make_client: MakeClient, folder: Path, outcome: bytes) -> None:
    with FakeServer(folder, answering(b"result\n" + outcome, blocks=2)) as fake:
        with make_client(fake.address) as client, pytest.raises(ProtocolError, match="outcome"):
            client.test_and_merge({}, {})


def test_an_answer_may_come_byte_by_byte(make_client: MakeClient, folder: Path) -> None:
    def slow(connection: socket.socket) -> None:
        for _ in range(2):
            read_request(connection, 1)
            for byte in AUDIO:
                connection.sendall(bytes([byte]))
                time.sleep(0.001)
        wait_for_end(connection)

    with FakeServer(folder, slow) as fake, make_client(fake.address) as client:
        assert client.get("Audio") == client.get("Audio") == {"Audio": {"volume": "3"}}


@pytest.mark.parametrize("sent", [b"", b"da", b"data\n", b"data\n[Audio]\nvolume=3\n."])
def test_a_stall_ends_with_the_time_out(make_client: MakeClient, folder: Path, sent: bytes) -> None:
    with FakeServer(folder, answering(sent), answering(AUDIO)) as fake:
        with make_client(fake.address, timeout=0.3) as client:
            start = time.monotonic()
            with pytest.raises(AnswerTimeout, match=r"get was not answered by .* within 0.3 s; call again"):
                client.get("Audio")
            assert 0.29 < time.monotonic() - start < 10
        with make_client(fake.address) as client:
            assert client.get("Audio") == {"Audio": {"volume": "3"}}


def test_a_trickle_does_not_extend_the_time_out(make_client: MakeClient, folder: Path) -> None:
    def trickle(connection: socket.socket) -> None:
        connection.sendall(b"data\n[a]\n")
        try:
            while True:
                connection.sendall(b"k=v\n" * 10)
                time.sleep(0.01)
        except OSError:
            pass

    with FakeServer(folder, trickle) as fake, make_client(fake.address, timeout=0.3) as client:
        with pytest.raises(AnswerTimeout):
            client.get("Audio")


def test_a_flood_does_not_extend_the_time_out(make_client: MakeClient, folder: Path) -> None:
    def flood(connection: socket.socket) -> None:
        try:
            while True:
                connection.sendall(b"async change\na\n.\n.\n" * 100)
        except OSError:
            pass

    with FakeServer(folder, flood) as fake, make_client(fake.address, timeout=0.3) as client:
        with pytest.raises(AnswerTimeout):
            client.get("Audio")


def test_a_server_that_takes_no_request_ends_with_the_time_out(make_client: MakeClient, folder: Path) -> None:
    ended = threading.Event()

    def deaf(connection: socket.socket) -> None:
        ended.wait(30)

    with FakeServer(folder, deaf) as fake, make_client(fake.address, timeout=0.3) as client:
        with pytest.raises(AnswerTimeout, match="the change may or may not be made, read to find out"):
            client.merge({"Audio": {"title": "x" * 10_000_000}})
        ended.set()


def test_the_time_out_bounds_connecting_too(make_client: MakeClient, folder: Path) -> None:
    with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX) as first:
        listener.bind(f"{folder}/full")
        listener.listen(0)
        first.connect(f"{folder}/full")  # nobody accepts, and there is no room for a second one
        with make_client(f"unix:{folder}/full", timeout=0.3) as client:
            with pytest.raises(AnswerTimeout, match="nothing was changed, call again"):
                client.erase("Audio")
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        listener.listen(0)
        address = "127.0.0.1:%d" % listener.getsockname()[1]
        with socket.create_connection(listener.getsockname()):
            with make_client(address, timeout=0.3) as client, pytest.raises(AnswerTimeout):
                client.get("Audio")


def test_a_slow_look_up_of_a_host_is_bounded(make_client: MakeClient, monkeypatch: pytest.MonkeyPatch) -> None:
    asked = threading.Event()

    def slow(*arguments: object, **options: object) -> list[object]:
        if options.get("flags"):
            raise socket.gaierror("not numeric")
        asked.wait(30)
        return []

    monkeypatch.setattr(socket, "getaddrinfo", slow)
    with make_client("slow.example:4711", timeout=0.3) as client:
        with pytest.raises(AnswerTimeout):
            client.get("Audio")
        asked.set()


def test_a_read_is_tried_once_more_on_a_lost_connection(make_client: MakeClient, folder: Path) -> None:
    def one(connection: socket.socket) -> None:
        read_request(connection, 1)
        connection.sendall(AUDIO)

    with FakeServer(folder, one, one, one) as fake:
        with make_client(fake.address) as client:
            for _ in range(3):
                assert client.get("Audio") == {"Audio": {"volume": "3"}}


def test_a_read_is_not_tried_three_times(make_client: MakeClient, folder: Path) -> None:
    def one(connection: socket.socket) -> None:
        read_request(connection, 1)
        connection.sendall(AUDIO)

    def none(connection: socket.socket) -> None:
        read_request(connection, 1)

    def late(connection: socket.socket) -> None:
        one(connection)
        read_request(connection, 1)  # the connection is lost only when the next call is on its way

    with FakeServer(folder, late, none) as fake, make_client(fake.address) as client:
        client.get("Audio")
        with pytest.raises(ConnectionLost, match="the server ended the connection"):
            client.get("Audio")
    assert fake.served == 2


def test_a_change_is_never_tried_again(make_client: MakeClient, folder: Path) -> None:
    seen: list[bytes] = []

    def late(connection: socket.socket) -> None:
        read_request(connection, 1)
        connection.sendall(AUDIO)
        seen.append(read_request(connection, 2))

    with FakeServer(folder, late, answering(EMPTY, blocks=2)) as fake, make_client(fake.address) as client:
        client.get("Audio")
        with pytest.raises(ConnectionLost, match="the change may or may not be made, read to find out"):
            client.merge({"Audio": {"volume": "9"}})
        assert seen == [b"merge\n[Audio]\nvolume=9\n.\nget delimited\nKorloSettings/Trusted/Refused\n.\n"]
        client.merge({"Audio": {"volume": "9"}})


def test_a_change_on_a_lost_connection_was_not_sent(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    client.get("Audio")
    server.stop()
    server.start()
    with pytest.raises(ConnectionLost, match="nothing was changed, call again"):
        client.merge({"Audio": {"volume": "9"}})
    assert client.get("Audio") == {}
    client.merge({"Audio": {"volume": "9"}})
    assert client.value("Audio", "volume") == "9"


@pytest.mark.parametrize("late", [False, True])
def test_an_answer_to_nobody_reaches_no_call(make_client: MakeClient, folder: Path, late: bool) -> None:
    sent = threading.Event()

    def two(connection: socket.socket) -> None:
        read_request(connection, 1)
        connection.sendall(AUDIO if late else AUDIO + b"data\n[Other]\n.\n")
        if late:
            connection.sendall(b"data\n[Other]\n.\n")
        sent.set()
        wait_for_end(connection)

    with FakeServer(folder, two, answering(EMPTY)) as fake, make_client(fake.address) as client:
        assert client.get("Audio") == {"Audio": {"volume": "3"}}
        assert sent.wait(30)
        assert client.get("Nobody") == {}


def test_a_message_without_end_is_refused(
    make_client: MakeClient, folder: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr("korlo_settings.protocol.MAX_MESSAGE", 1000)
    with FakeServer(folder, answering(b"data\n[a]\nk=" + b"x" * 2000)) as fake, make_client(fake.address) as client:
        with pytest.raises(ProtocolError, match="longer than 1000 bytes"):
            client.get("Audio")


def test_a_server_without_rules_or_refusals_is_enough(make_client: MakeClient, folder: Path) -> None:
    """What an older server answers to the question whether it refused."""
    with FakeServer(folder, answering(EMPTY, blocks=2)) as fake, make_client(fake.address) as client:
        client.merge({"Audio": {"volume": "9"}})


# --- Threads, with the blocking client ----------------------------------------------------------------------------


def test_threads_share_a_client_and_get_their_own_answers(server: Server) -> None:
    failures: list[str] = []
    with Client(server.address) as client:
        client.merge({f"G{n}": {"id": str(n)} for n in range(8)})

        def work(number: int) -> None:
            for _ in range(50):
                if (found := client.get(f"G{number}")) != {f"G{number}": {"id": str(number)}}:
                    failures.append(str(found))

        threads = [threading.Thread(target=work, args=(n,)) for n in range(8)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(30)
    assert failures == []


def test_waiting_for_another_thread_counts_for_the_time_out(folder: Path) -> None:
    with FakeServer(folder, answering(b"")) as fake, Client(fake.address, 0.5) as client:
        raised: list[Exception] = []

        def call() -> None:
            try:
                client.get("Audio")
            except Exception as error:
                raised.append(error)

        threads = [threading.Thread(target=call) for _ in range(8)]
        start = time.monotonic()
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(30)
        # Who gets its turn at the last moment finds that server gone.
        assert len(raised) == 8 and {type(error) for error in raised} <= {AnswerTimeout, ConnectionLost}
        assert time.monotonic() - start < 3.5  # one after the other would take 4


def test_close_ends_a_call_of_another_thread(folder: Path) -> None:
    def closes_during(call: Callable[[], object], is_waiting: Callable[[], bool], client: Client) -> None:
        raised: list[Exception] = []

        def run() -> None:
            try:
                call()
            except Exception as error:
                raised.append(error)

        thread = threading.Thread(target=run)
        thread.start()
        eventually(is_waiting)
        client.close()
        thread.join(10)
        assert not thread.is_alive()
        assert isinstance(raised[0], SettingsError) and "is closed" in str(raised[0])

    asked = threading.Event()

    def silent(connection: socket.socket) -> None:
        read_request(connection, 1)
        asked.set()
        wait_for_end(connection)

    with FakeServer(folder, silent) as fake:
        client = Client(fake.address)
        closes_during(lambda: client.get("Audio"), asked.is_set, client)


def test_a_forked_child_makes_a_connection_of_its_own(server: Server) -> None:
    with Client(server.address) as client:
        client.merge({"Audio": {"volume": "3"}})
        child = os.fork()
        if child == 0:
            try:
                client.merge({"Child": {"was": "here"}})
                client.close()
            finally:
                os._exit(0)
        os.waitpid(child, 0)
        assert client.get("Audio", "Child") == {"Audio": {"volume": "3"}, "Child": {"was": "here"}}
        # The parent's own connection, on which a change would fail had the child used or ended it.
        client.merge({"Audio": {"volume": "4"}})


def test_an_interrupted_call_closes_the_connection(folder: Path) -> None:
    def interrupt(connection: socket.socket) -> None:
        read_request(connection, 1)
        os.kill(os.getpid(), signal.SIGINT)
        wait_for_end(connection)

    with FakeServer(folder, interrupt, answering(EMPTY)) as fake, Client(fake.address) as client:
        with pytest.raises(KeyboardInterrupt):
            client.get("Audio")
        assert client.get("Nobody") == {}
