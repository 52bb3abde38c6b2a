"""The framing alone: documents and messages, in every way that they can be cut."""

import random
from pathlib import Path

import pytest

from korlo_settings import ProtocolError
from korlo_settings.protocol import (
    Data,
    Message,
    Notification,
    Receiver,
    Result,
    Settings,
    get,
    merge,
    overwrite,
    parse_settings,
    restore,
    subscribe,
    test_and_merge,
    write_settings,
)

CONVERSATION = (
    b"data\n.\n"
    b"async change\nNet/a\nGone\n.\n[Net/a]\nk=.\n\"\\n.\\n\"=\"\\n.\\n\"\n.\n"
    b"result\nok\n"
    b"async change\n.\n.\n"
    b"data\n[Audio]\nvolume=3\n[Empty]\n.\n"
    b"result\nfailure\n"
)
MESSAGES: list[Message] = [
    Data({}),
    Notification(["Net/a", "Gone"], {"Net/a": {"k": ".", "\n.\n": "\n.\n"}}),
    Result(True),
    Notification([], {}),
    Data({"Audio": {"volume": "3"}, "Empty": {}}),
    Result(False),
]


def received(pieces: list[bytes]) -> list[Message]:
    receiver = Receiver()
    messages = []
    for piece in pieces:
        receiver.receive(piece)
        while (message := receiver.next_message()) is not None:
            messages.append(message)
    assert receiver.is_between_messages
    return messages


@pytest.mark.parametrize("size", range(1, len(CONVERSATION) + 1))
def test_messages_may_come_in_pieces_of_any_size(size: int) -> None:
    assert received([CONVERSATION[at : at + size] for at in range(0, len(CONVERSATION), size)]) == MESSAGES


def test_a_conversation_may_be_cut_anywhere_twice() -> None:
    for first in range(len(CONVERSATION)):
        for second in range(first, len(CONVERSATION), 7):
            pieces = [CONVERSATION[:first], CONVERSATION[first:second], CONVERSATION[second:]]
            assert received(pieces) == MESSAGES


def test_requests_are_these_bytes() -> None:
    settings: Settings = {"A": {"k": "v"}, "B": {}}
    assert get(["A", "", "*"]) == b"get delimited\nA\n\n*\n.\n"
    assert merge(settings) == b"merge\n[A]\nk=v\n[B]\n.\n"
    assert merge({}, persist=False) == b"merge nopersist\n.\n"
    assert test_and_merge(settings, {}) == b"test-and-merge\n[A]\nk=v\n[B]\n.\n.\n"
    assert overwrite(["A"], settings) == b"overwrite\nA\n.\n[A]\nk=v\n[B]\n.\n"
    assert restore([]) == b"restore\n.\n"
    assert subscribe(["\udcff\r"]) == b"subscribe\n\xff\r\n.\n"


def documented(kind: str) -> list[str]:
    text = (Path(__file__).parents[3] / "docs" / "ini-format.md").read_text()
    return [block.split("```")[0] for block in text.split(f"```{kind}\n")[1:]]


def test_documents_are_written_as_the_format_says() -> None:
    plain, quoted = documented("ini")
    for read, written in zip((plain, quoted), documented("ini written"), strict=True):
        settings = parse_settings(read.encode())
        ordered = {name: dict(sorted(values.items())) for name, values in sorted(settings.items())}
        assert write_settings(ordered).decode() == written


def test_lines_that_make_no_sense_are_told() -> None:
    text = (Path(__file__).parents[3] / "docs" / "ini-format.md").read_text()
    rows = text.split("| line | reason |\n|---|---|\n")[1].split("\n\n")[0].splitlines()
    assert len(rows) > 5
    for row in rows:
        line = row.split("`")[1]
        with pytest.raises(ProtocolError, match="a line of settings makes no sense"):
            parse_settings(f"[group]\n{line}\n".encode())


@pytest.mark.parametrize(
    ("text", "settings"),
    [
        (b"", {}),
        (b"\xef\xbb\xbf[a]\r\nk = v \r\n", {"a": {"k": "v"}}),
        (b"[a]\nk=1\n[b]\n[a]\nk=2\nl=3", {"a": {"k": "2", "l": "3"}, "b": {}}),
        (b" [ a b ] \n\t k k \t=\t v v \n # c\n;c\n", {"a b": {"k k": "v v"}}),
        (b'[ "]" ]\n"=" = "\\x41\\xc3\\xa9\\xff"\n', {"]": {"=": "Aé\udcff"}}),
        ("[a]\n\u00a0k\u00a0=\u00a0\x85\u2028v\u00a0\n".encode(), {"a": {"\u00a0k\u00a0": "\u00a0\x85\u2028v\u00a0"}}),
        (b"[]\nk==\n", {"": {"k": "="}}),
    ],
)
def test_reading_follows_the_format(text: bytes, settings: dict[str, dict[str, str]]) -> None:
    assert parse_settings(text) == settings


def test_what_is_written_is_read_back() -> None:
    seed = random.randrange(2**32)
    print("seed", seed)
    generator = random.Random(seed)
    letters = ' \t\r\n\x00\x1f\x7f"\\=[]#;.xé\u00a0\u2028\udcff*'

    def text() -> str:
        return "".join(generator.choices(letters, k=generator.randint(0, 6)))

    for _ in range(2000):
        settings = {text(): {text(): text() for _ in range(3)} for _ in range(3)}
        written = write_settings(settings)
        assert parse_settings(written) == settings
        assert b"." not in written.split(b"\n")
