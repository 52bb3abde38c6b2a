"""The changes that a watch yields, from both clients."""

import signal
import socket
import threading
import time
from pathlib import Path

import pytest

from korlo_settings import Change, Client, ConnectionLost
from support import FakeServer, MakeClient, Server, answering, eventually, read_request, wait_for_end


def test_the_present_state_comes_first(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    client.merge({"Audio": {"volume": "3"}, "Net/a": {}, "Other": {}})
    watch = client.watch("Audio", "Net/*", "Nobody")
    client.merge({"Audio": {"muted": "no"}})
    assert next(watch) == Change(["Audio", "Net/a"], {"Audio": {"volume": "3"}, "Net/a": {}})
    assert next(watch) == Change(["Audio"], {"Audio": {"muted": "no", "volume": "3"}})


def test_an_empty_present_state_comes_too(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    watch = client.watch("Audio")
    assert next(watch) == Change([], {})
    client.merge({"Audio": {"volume": "3"}})
    assert next(watch) == Change(["Audio"], {"Audio": {"volume": "3"}})


def test_without_initial_the_first_change_comes_first(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    client.merge({"Audio": {"volume": "3"}})
    watch = client.watch("Audio", initial=False)
    client.merge({"Audio": {"volume": "4"}})
    assert next(watch) == Change(["Audio"], {"Audio": {"volume": "4"}})
    client.erase("Audio")
    assert next(watch) == Change(["Audio"], {})


@pytest.mark.parametrize("how", [signal.SIGTERM, signal.SIGKILL])
def test_after_a_restart_only_what_differs_comes(
    make_client: MakeClient, server: Server, how: signal.Signals
) -> None:
    client = make_client(server.address)
    client.merge({"Same": {"a": "1"}, "Changed": {"a": "1"}, "Gone": {"a": "1"}})
    watch = client.watch("*")
    assert next(watch).groups == ["Changed", "Gone", "Same"]
    server.stop(how)
    server.user_file.write_text("[Changed]\na=2\n[New]\nb=1\n[Same]\na=1\n")
    server.start()
    assert next(watch) == Change(["Changed", "Gone", "New"], {"Changed": {"a": "2"}, "New": {"b": "1"}})
    client.get("*")
    client.merge({"Same": {"a": "2"}})
    assert next(watch) == Change(["Same"], {"Same": {"a": "2"}})


def test_a_restart_that_changed_nothing_yields_nothing(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    client.merge({"Audio": {"volume": "3"}})
    watch = client.watch("*")
    assert next(watch).groups == ["Audio"]
    for number in range(2):
        server.stop()
        server.start()
        client.get("*")
        client.merge({f"New{number}": {}})
        assert next(watch).groups == [f"New{number}"]


def test_the_caller_may_do_anything_with_a_change(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    client.merge({"Audio": {"volume": "3"}})
    watch = client.watch("Audio")
    first = next(watch)
    first.settings["Audio"]["volume"] = "4"
    first.settings.clear()
    client.merge({"Audio": {"volume": "4"}})
    assert next(watch) == Change(["Audio"], {"Audio": {"volume": "4"}})


def test_the_same_content_is_told_once(make_client: MakeClient, folder: Path) -> None:
    notification = b"async change\na\n.\n[a]\nk=2\n.\n"

    def twice(connection: socket.socket) -> None:
        read_request(connection, 2)
        connection.sendall(notification + b"data\n[a]\nk=1\n.\n" + notification + notification)
        connection.sendall(b"async change\nb*\nc\n.\n[b*]\nk=1\n[bx]\nk=1\n.\n")
        wait_for_end(connection)

    with FakeServer(folder, twice) as fake, make_client(fake.address) as client:
        watch = client.watch("*")
        assert next(watch) == Change(["a"], {"a": {"k": "1"}})
        assert next(watch) == Change(["a"], {"a": {"k": "2"}})
        assert next(watch) == Change(["b*"], {"b*": {"k": "1"}})
        watch.close()


STATE = b"data\n[a]\nk=1\n.\n"
BAD = [b"", b"nonsense\n", b"result\nok\n", b"async change\na\n.\n[a]\nk=", b"async change\na\n.\nnonsense\n.\n"]


@pytest.mark.parametrize("bad", BAD)
def test_a_watch_survives_what_a_server_may_do(make_client: MakeClient, folder: Path, bad: bytes) -> None:
    def misbehave(connection: socket.socket) -> None:
        read_request(connection, 2)
        connection.sendall(STATE + bad)

    def again(connection: socket.socket) -> None:
        read_request(connection, 2)
        connection.sendall(bad)

    with FakeServer(folder, misbehave, again, answering(b"data\n[a]\nk=2\n.\n", blocks=2)) as fake:
        with make_client(fake.address) as client:
            watch = client.watch("a")
            assert next(watch) == Change(["a"], {"a": {"k": "1"}})
            assert next(watch) == Change(["a"], {"a": {"k": "2"}})
            watch.close()


def test_a_notification_that_stalls_ends_with_the_time_out(make_client: MakeClient, folder: Path) -> None:
    better = answering(b"data\n[a]\nk=2\n.\n", blocks=2)
    with FakeServer(folder, answering(STATE + b"async change\na\n", blocks=2), better) as fake:
        with make_client(fake.address, timeout=1.0) as client:
            watch = client.watch("a")
            assert next(watch) == Change(["a"], {"a": {"k": "1"}})
            assert next(watch) == Change(["a"], {"a": {"k": "2"}})
            watch.close()


def test_who_takes_nothing_for_long_still_learns_the_present_state(
    make_client: MakeClient, server: Server
) -> None:
    """The server ends the connection of a client that too much waits for."""
    client = make_client(server.address)
    watch = client.watch("Big")
    next(watch)
    for number in range(30):
        client.merge({"Big": {"value": "x" * 100_000, "number": str(number)}}, persist=False)
    while next(watch).settings["Big"]["number"] != "29":
        pass


def test_close_ends_a_watch(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    watch = client.watch("*")
    watch.close()
    watch.close()
    assert list(watch) == []
    other = client.watch("*")
    client.close()
    assert list(other) == []


@pytest.mark.parametrize("is_away", [False, True])
@pytest.mark.parametrize("closes_client", [False, True])
def test_close_ends_a_watch_that_waits_in_another_thread(
    server: Server, is_away: bool, closes_client: bool
) -> None:
    client = Client(server.address)
    watch = client.watch("*")
    next(watch)
    if is_away:
        server.stop()
    ended = threading.Event()

    def wait() -> None:
        for _ in watch:
            pass
        ended.set()

    thread = threading.Thread(target=wait)
    thread.start()
    eventually(lambda: watch._turn.locked())
    start = time.monotonic()
    end = client.close if closes_client else watch.close
    end()
    assert ended.wait(30) and time.monotonic() - start < 5
    thread.join()
    client.close()


def test_one_thread_watches_while_another_calls(server: Server) -> None:
    with Client(server.address) as client:
        seen: list[str] = []
        watch = client.watch("Count", initial=False)

        def wait() -> None:
            for change in watch:
                seen.append(change.settings["Count"]["n"])

        thread = threading.Thread(target=wait)
        thread.start()
        for number in range(50):
            client.merge({"Count": {"n": str(number)}})
        eventually(lambda: seen[-1:] == ["49"])
        watch.close()
        thread.join(30)
        assert seen == sorted(seen, key=int)


def test_a_watch_raises_when_there_is_no_server_then(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    server.stop()
    with pytest.raises(ConnectionLost, match="no such socket"):
        client.watch("Audio")


def test_a_loop_that_is_left_leaves_nothing_open(server: Server) -> None:
    with Client(server.address) as client:
        for _ in client.watch("Audio"):
            break  # an open socket would be a ResourceWarning, which is an error here
