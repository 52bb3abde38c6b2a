"""What the calls of both clients do, against the real server."""

import os
import random
import socket
from collections.abc import Callable
from pathlib import Path

import pytest

import korlo_settings
from conftest import StartServer
from korlo_settings import (
    ConnectionLost,
    InvalidAddress,
    InvalidName,
    Refused,
    RestrictedGroup,
    SettingsError,
)
from support import MakeClient, Server

DEFAULTS = "[Audio]\nmuted=no\nvolume=3\n[Net/eth0]\nmode=dhcp\n[Net/wlan0]\nmode=off\n"
RESTRICTED = "[DeviceSecure]\nserial=4711\n"


@pytest.fixture(params=["unix", "tcp"])
def address(request: pytest.FixtureRequest, start_server: StartServer) -> str:
    server = start_server(defaults=DEFAULTS, restricted=RESTRICTED)
    return server.address if request.param == "unix" else server.tcp_address


def test_get_returns_what_names_and_patterns_select(make_client: MakeClient, address: str) -> None:
    client = make_client(address)
    assert client.get("Net/*", "Nobody") == {"Net/eth0": {"mode": "dhcp"}, "Net/wlan0": {"mode": "off"}}
    assert client.get() == {}
    assert client.get("DeviceSecure") == {"DeviceSecure": {"serial": "4711"}}


def test_value_is_one_value_or_none(make_client: MakeClient, address: str) -> None:
    client = make_client(address)
    assert client.value("Audio", "volume") == "3"
    assert client.value("Audio", "bass") is None
    assert client.value("Nobody", "volume") is None


def test_merge_sets_keys_and_leaves_the_others(make_client: MakeClient, address: str) -> None:
    client = make_client(address)
    client.merge({"Audio": {"volume": "7"}, "New": {"a": ""}})
    assert client.get("Audio", "New") == {"Audio": {"muted": "no", "volume": "7"}, "New": {"a": ""}}


def test_merge_without_persist_is_gone_at_the_next_start(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    client.merge({"Kept": {"a": "1"}})
    client.merge({"Passing": {"a": "1"}}, persist=False)
    assert set(client.get("*")) == {"Kept", "Passing"}
    server.stop()
    server.start()
    assert set(client.get("*")) == {"Kept"}


def test_test_and_merge_says_whether_the_values_held(make_client: MakeClient, address: str) -> None:
    client = make_client(address)
    assert client.test_and_merge({"Audio": {"volume": "3"}}, {"Audio": {"volume": "4"}})
    assert not client.test_and_merge({"Audio": {"volume": "3"}}, {"Audio": {"volume": "5"}})
    assert client.test_and_merge({"DeviceSecure": {"serial": "4711"}}, {})
    assert client.value("Audio", "volume") == "4"


def test_overwrite_erase_and_restore(make_client: MakeClient, address: str) -> None:
    client = make_client(address)
    client.overwrite(["Net/*"], {"Net/usb0": {"mode": "dhcp"}})
    assert set(client.get("*")) >= {"Audio", "Net/usb0"} and "Net/eth0" not in client.get("*")
    client.erase("Net/usb0", "Audio")
    assert client.get("Net/*", "Audio") == {}
    client.restore("Net/*", "Audio")
    assert client.get("Net/*", "Audio") == {
        "Audio": {"muted": "no", "volume": "3"},
        "Net/eth0": {"mode": "dhcp"},
        "Net/wlan0": {"mode": "off"},
    }


def test_every_byte_survives_in_names_keys_and_values(make_client: MakeClient, address: str) -> None:
    client = make_client(address)
    generator = random.Random(4711)
    all_bytes = bytes(range(256))
    odd = [b"", b" ", b".", b"\n.\n", b'"', b"\\", b"=", b"[a]", b"#", b";", b"5", b"\xff", "é\u00a0\x85".encode(), b"\xed\xa0\x80"]
    samples = odd + [all_bytes] + [bytes(generator.choices(all_bytes, k=9)) for _ in range(50)]
    texts = [sample.decode("utf-8", "surrogateescape") for sample in samples]
    settings = {text: {text: text, "x" + text: text + "y"} for text in texts}
    client.overwrite(["*"], settings)
    found = client.get("*")
    for others in ("KorloSettings/Data/DeletedGroups", "DeviceSecure"):
        found.pop(others, None)
    assert found == settings
    for text in texts:
        if "\n" not in text and text != "." and "*" not in text:
            assert client.get(text) == {text: settings[text]}


@pytest.mark.parametrize("name", [".", "a\nb", "\n", "\ud800"])
def test_a_name_that_no_list_can_carry_is_invalid(make_client: MakeClient, server: Server, name: str) -> None:
    client = make_client(server.address)
    calls: list[Callable[[], object]] = [
        lambda: client.get("Audio", name),
        lambda: client.value(name, "key"),
        lambda: client.erase(name),
        lambda: client.restore(name),
        lambda: client.overwrite([name]),
        lambda: client.watch(name),
    ]
    for call in calls:
        with pytest.raises(InvalidName) as caught:
            call()
        assert repr(name) in str(caught.value)
    assert isinstance(caught.value, ValueError)


def test_half_a_surrogate_pair_is_no_text(make_client: MakeClient, server: Server) -> None:
    with pytest.raises(InvalidName, match="surrogate pair"):
        make_client(server.address).merge({"Audio": {"title": "\ud800"}})


def test_a_watch_of_nothing_is_invalid(make_client: MakeClient, server: Server) -> None:
    with pytest.raises(InvalidName, match="without any"):
        make_client(server.address).watch()


@pytest.mark.parametrize("value", [5, None, b"5"])
def test_what_is_no_str_is_a_type_error(make_client: MakeClient, server: Server, value: str) -> None:
    client = make_client(server.address)
    with pytest.raises(TypeError, match="'volume' in the group 'Audio'"):
        client.merge({"Audio": {"volume": value}})
    with pytest.raises(TypeError):
        client.merge({"Audio": {value: "x"}})
    with pytest.raises(TypeError):
        client.merge({value: {}})
    with pytest.raises(TypeError):
        client.get(value)
    with pytest.raises(TypeError):
        client.erase(value)
    assert client.get("*") == {}


def test_one_str_is_no_list_of_names(make_client: MakeClient, server: Server) -> None:
    with pytest.raises(TypeError, match=r"\['Audio'\]"):
        make_client(server.address).overwrite("Audio")  # type: ignore[arg-type]


@pytest.mark.parametrize("group", ["DeviceSecure", "Trusted", "A/Secure*", "Insecurities Secured"])
def test_a_change_of_a_restricted_group_is_not_sent(make_client: MakeClient, address: str, group: str) -> None:
    client = make_client(address)
    before = client.get("*")
    calls: list[Callable[[], object]] = [
        lambda: client.merge({"Audio": {"volume": "9"}, group: {"serial": "0"}}),
        lambda: client.test_and_merge({}, {"Audio": {"volume": "9"}, group: {}}),
        lambda: client.overwrite(["Audio", group]),
        lambda: client.overwrite(["Audio"], {group: {}}),
        lambda: client.erase("Audio", group),
        lambda: client.restore("Audio", group),
    ]
    for call in calls:
        with pytest.raises(RestrictedGroup) as caught:
            call()
        assert repr(group) in str(caught.value)
    assert isinstance(caught.value, ValueError)
    assert client.get("*") == before


def test_is_restricted_looks_for_two_words() -> None:
    assert korlo_settings.is_restricted("aSecureb") and korlo_settings.is_restricted("Trusted")
    assert not korlo_settings.is_restricted("secure") and not korlo_settings.is_restricted("Securities"[:5])


def test_a_pattern_leaves_restricted_groups_alone(make_client: MakeClient, address: str) -> None:
    client = make_client(address)
    client.erase("*")
    assert "Audio" not in client.get("*")
    assert client.value("DeviceSecure", "serial") == "4711"


RULES = "[Access/tcp]\npeer=tcp\nread=*\nchange=Net/*\ndeny=Hidden\n"


@pytest.fixture
def guarded(start_server: StartServer, folder: Path) -> str:
    """The TCP door of a server with rules: over it nobody is anybody, whoever runs the tests."""
    (folder / "access.ini").write_text(RULES)
    return start_server("--access", str(folder / "access.ini"), defaults=DEFAULTS + "[Hidden]\na=1\n").tcp_address


def test_a_refused_change_names_the_groups(make_client: MakeClient, guarded: str) -> None:
    client = make_client(guarded)
    before = client.get("*")
    calls: list[tuple[Callable[[], object], list[str]]] = [
        (lambda: client.merge({"Net/eth0": {"mode": "off"}, "Audio": {"volume": "9"}, "Door": {}}), ["Audio", "Door"]),
        (lambda: client.test_and_merge({}, {"Audio": {"volume": "9"}}), ["Audio"]),
        (lambda: client.test_and_merge({"Hidden": {"a": "1"}}, {"Net/eth0": {"mode": "off"}}), ["Hidden"]),
        (lambda: client.overwrite(["Net/eth0", "Audio"]), ["Audio"]),
        (lambda: client.erase("N*"), ["N*"]),
        (lambda: client.restore("*"), ["*"]),
    ]
    for call, groups in calls:
        with pytest.raises(Refused) as caught:
            call()
        assert caught.value.groups == groups
        assert all(repr(group) in str(caught.value) for group in groups)
    assert isinstance(caught.value, PermissionError)
    assert client.get("*") == before
    client.merge({"Net/eth0": {"mode": "off"}})  # a refusal is told once
    assert not client.test_and_merge({"Net/eth0": {"mode": "dhcp"}}, {})
    assert client.value("Net/eth0", "mode") == "off"


def test_no_server_says_what_to_do(make_client: MakeClient, folder: Path) -> None:
    client = make_client(f"unix:{folder}/nothing")
    with pytest.raises(ConnectionLost) as caught:
        client.get("Audio")
    assert str(caught.value) == (
        f"the settings server at unix:{folder}/nothing cannot be reached: there is no such socket; start"
        f" korlo-settings-server with --listen unix:{folder}/nothing, or name the HOST:PORT of an older server,"
        " which listens on TCP alone"
    )
    assert isinstance(caught.value, ConnectionError)
    with pytest.raises(ConnectionLost):
        client.watch("Audio")


def test_a_port_or_socket_without_listener_says_what_to_do(make_client: MakeClient, folder: Path) -> None:
    with socket.socket() as unheard:
        unheard.bind(("127.0.0.1", 0))  # taken, and nobody listens
        client = make_client("127.0.0.1:%d" % unheard.getsockname()[1])
        with pytest.raises(ConnectionLost, match="nobody listens there; start korlo-settings-server"):
            client.merge({"Audio": {"volume": "9"}})
    with socket.socket(socket.AF_UNIX) as left_over:
        left_over.bind(f"{folder}/left-over")
        with pytest.raises(ConnectionLost, match="nobody listens there"):
            make_client(f"unix:{folder}/left-over").get("Audio")


def test_an_unknown_host_says_so(make_client: MakeClient) -> None:
    with pytest.raises(ConnectionLost, match="the host is unknown"):
        make_client("no-such-host.invalid:4711").get("Audio")
    with pytest.raises(ConnectionLost, match="the host is unknown"):
        make_client("a..b:4711").get("Audio")


def test_a_name_of_the_system_is_looked_up(make_client: MakeClient, server: Server) -> None:
    assert make_client(server.tcp_address.replace("127.0.0.1", "localhost")).get("Audio") == {}


def test_a_socket_without_permission_says_what_to_do(make_client: MakeClient, server: Server) -> None:
    server.path.chmod(0o600)
    if os.geteuid() != 0:
        server.path.chmod(0)
    pipe = os.pipe()
    child = os.fork()
    if child == 0:  # root may open everything
        try:
            if os.geteuid() == 0:
                os.setgroups([])
                os.setgid(65534)
                os.setuid(65534)
            make_client(server.address).get("Audio")
            os.write(pipe[1], b"it could be opened")
        except ConnectionLost as error:
            os.write(pipe[1], str(error).encode())
        finally:
            os._exit(0)
    os.close(pipe[1])
    with open(pipe[0]) as told:
        message = told.read()
    os.waitpid(child, 0)
    assert message.startswith(f"the settings server at {server.address} cannot be reached: no permission for the socket;")
    assert "run as a member of the group" in message


@pytest.mark.parametrize(
    ("address", "reason"),
    [
        ("", "the port is missing"),
        ("localhost", "the port is missing"),
        ("[::1]", "the port is missing"),
        (":4711", "the host is missing"),
        ("h:0", "the port must be a number from 1 to 65535"),
        ("h:65536", "the port must be a number from 1 to 65535"),
        ("h:+1", "the port must be a number from 1 to 65535"),
        ("h:١", "the port must be a number from 1 to 65535"),
        ("h:" + "9" * 5000, "the port must be a number from 1 to 65535"),
        ("::1:4711", "an IPv6 address must stand in square brackets"),
        ("[]:4711", "its brackets hold no address"),
        ("[::1:4711", "its brackets hold no address"),
        ("unix:", "the path is missing"),
        ("unix:/" + "a" * 107, "its path is longer than 107 bytes"),
        ("unix:/a\0b", "it holds a zero byte"),
        ("unix:/\ud800", "its path stands for no bytes"),
    ],
)
def test_what_is_no_address_is_told_at_once(make_client: MakeClient, address: str, reason: str) -> None:
    with pytest.raises(InvalidAddress) as caught:
        make_client(address)
    assert reason in str(caught.value) and isinstance(caught.value, ValueError)


@pytest.mark.parametrize("timeout", [0, -1, float("nan"), float("inf")])
def test_a_timeout_is_a_positive_number(make_client: MakeClient, timeout: float) -> None:
    with pytest.raises(ValueError, match="positive number of seconds"):
        make_client("h:1", timeout)


def test_an_ipv6_address_stands_in_brackets() -> None:
    from korlo_settings._address import parse_address

    address = parse_address("[::1]:4711")
    assert (address.host, address.port, str(address)) == ("::1", 4711, "[::1]:4711")


def test_without_an_address_the_socket_comes_first(
    make_client: MakeClient, server: Server, folder: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    host, port = server.tcp_address.split(":")
    monkeypatch.setattr("korlo_settings._address.DEFAULT_SOCKET", str(folder / "none"))
    monkeypatch.setattr("korlo_settings._address.DEFAULT_TCP", (host, int(port)))
    make_client().merge({"By": {"tcp": "1"}})
    monkeypatch.setattr("korlo_settings._address.DEFAULT_TCP", (host, 1))
    monkeypatch.setattr("korlo_settings._address.DEFAULT_SOCKET", str(server.path))
    assert make_client().get("By") == {"By": {"tcp": "1"}}
    with socket.socket(socket.AF_UNIX) as left_over:
        left_over.bind(str(folder / "left-over"))
        monkeypatch.setattr("korlo_settings._address.DEFAULT_SOCKET", str(folder / "left-over"))
        with pytest.raises(ConnectionLost, match="left-over"):  # that is the failure: nobody goes on to TCP
            make_client().get("By")


def test_a_closed_client_is_of_no_more_use(make_client: MakeClient, server: Server) -> None:
    client = make_client(server.address)
    client.get("Audio")
    client.close()
    client.close()
    calls: list[Callable[[], object]] = [
        lambda: client.get("Audio"),
        lambda: client.erase("Audio"),
        lambda: client.watch("Audio"),
    ]
    for call in calls:
        with pytest.raises(SettingsError, match="is closed; make a new one"):
            call()
