"""The settings protocol without input or output: requests as bytes, and messages out of bytes.

Whoever has a connection of another kind than the two clients of this package can build on it:

    connection.write(get(["Audio"]))
    receiver = Receiver()
    while (message := receiver.next_message()) is None:
        receiver.receive(connection.read())

Text is `str`, in UTF-8 with `surrogateescape`: whatever bytes a name, key or value holds, they survive.
"""

import re
from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import Literal

from .errors import InvalidName, ProtocolError

__all__ = [
    "MAX_MESSAGE",
    "REFUSED_GROUP",
    "Data",
    "Message",
    "Notification",
    "Receiver",
    "Result",
    "Settings",
    "get",
    "is_restricted",
    "merge",
    "overwrite",
    "parse_settings",
    "restore",
    "subscribe",
    "test_and_merge",
    "write_settings",
]

Settings = dict[str, dict[str, str]]
"""Groups by name, each with its values by key."""

REFUSED_GROUP = "KorloSettings/Trusted/Refused"
"""The group that tells a connection which change of its own was refused since it was last read."""

MAX_MESSAGE = 256 * 1024 * 1024
"""The most bytes that one message may have: no server can fill the memory of its clients."""


def is_restricted(group: str) -> bool:
    """Whether no client can change this group: its name holds `Secure` or `Trusted`."""
    return "Secure" in group or "Trusted" in group


# --- Text ---------------------------------------------------------------------------------------------------------


def _encode(text: str) -> bytes:
    try:
        return text.encode("utf-8", "surrogateescape")
    except UnicodeEncodeError as error:
        raise InvalidName(
            f"{text[max(0, error.start - 40) : error.end + 40]!r} cannot be sent: {text[error.start]!r} is half of a"
            " surrogate pair, which stands for no bytes"
        ) from None


def _decode(data: bytes | bytearray | memoryview) -> str:
    return str(data, "utf-8", "surrogateescape")


# --- Documents: INI text ------------------------------------------------------------------------------------------

_BLANKS = " \t\v\f\r"  # str.strip() without them would take characters that are text here
_CONTROLS = re.compile(r"[\x00-\x1f\x7f]")
_ESCAPED = re.compile(r'[\x00-\x1f\x7f"\\]')
_ESCAPES = {"\\": "\\\\", '"': '\\"', "\n": "\\n", "\r": "\\r", "\t": "\\t"}
_QUOTED = re.compile(r'"((?:[^"\\]|\\.)*)"', re.DOTALL)
_ESCAPE = re.compile(rb'\\(?:([\\"nrt])|x([0-9A-Fa-f]{2})|)', re.DOTALL)
_UNESCAPES = {b"\\": b"\\", b'"': b'"', b"n": b"\n", b"r": b"\r", b"t": b"\t"}


def _quoted(text: str) -> str:
    escaped = _ESCAPED.sub(lambda match: _ESCAPES.get(match[0]) or f"\\x{ord(match[0]):02X}", text)
    return f'"{escaped}"'


def _has_odd_ends(text: str) -> bool:
    return text[:1] in (" ", '"') or text[-1:] == " "


def _write_group(name: str) -> str:
    odd = name and _has_odd_ends(name) or "]" in name or _CONTROLS.search(name)
    return _quoted(name) if odd else name


def _write_key(key: str) -> str:
    odd = not key or _has_odd_ends(key) or key[0] in "[#;" or "=" in key or _CONTROLS.search(key)
    return _quoted(key) if odd else key


def _write_value(value: str) -> str:
    odd = value and _has_odd_ends(value) or _CONTROLS.search(value)
    return _quoted(value) if odd else value


def _checked_text(what: str, text: object) -> str:
    if not isinstance(text, str):
        raise TypeError(f"{what} must be a str, not {type(text).__name__}: {text!r}")
    return text


def write_settings(settings: Mapping[str, Mapping[str, str]]) -> bytes:
    """The INI text of these groups. No line of it is a single full stop."""
    lines = []
    for group, values in settings.items():
        lines.append(f"[{_write_group(_checked_text('a group name', group))}]\n")
        for key, value in values.items():
            _checked_text(f"a key of the group {group!r}", key)
            _checked_text(f"the value of {key!r} in the group {group!r}", value)
            lines.append(f"{_write_key(key)}={_write_value(value)}\n")
    return _encode("".join(lines))


def _unescaped(quoted: str, line: str) -> str:
    if "\\" not in quoted:
        return quoted

    def replaced(match: re.Match[bytes]) -> bytes:
        if match[1]:
            return _UNESCAPES[match[1]]
        if match[2]:
            return bytes.fromhex(match[2].decode("ascii"))
        raise _senseless(line)

    # By bytes: several escapes may spell one character.
    return _decode(_ESCAPE.sub(replaced, _encode(quoted)))


def _senseless(line: str) -> ProtocolError:
    return ProtocolError(f"a line of settings makes no sense: {line[:100]!r}")


def _read_quoted(text: str, line: str) -> tuple[str, str]:
    """Returns what the quotes at the front of `text` hold, and what follows them."""
    match = _QUOTED.match(text)
    if match is None:
        raise _senseless(line)
    return _unescaped(match[1], line), text[match.end() :].lstrip(_BLANKS)


def _parse_header(line: str) -> str:
    inside = line[1:].lstrip(_BLANKS)
    if inside.startswith('"'):
        name, rest = _read_quoted(inside, line)
    else:
        name, bracket, after = inside.partition("]")
        name, rest = name.rstrip(_BLANKS), bracket + after
    if rest != "]":
        raise _senseless(line)
    return name


def _parse_pair(line: str) -> tuple[str, str]:
    if line.startswith('"'):
        key, rest = _read_quoted(line, line)
        has_key, sign, value = True, rest[:1], rest[1:]
    else:
        key, sign, value = line.partition("=")
        key = key.rstrip(_BLANKS)
        has_key = bool(key)
    if sign != "=" or not has_key:
        raise _senseless(line)
    value = value.lstrip(_BLANKS)
    if value.startswith('"'):
        value, rest = _read_quoted(value, line)
        if rest:
            raise _senseless(line)
    return key, value


def parse_settings(text: bytes | bytearray | memoryview) -> Settings:
    """The groups of an INI text. A line that makes no sense is a `ProtocolError`: a server writes none."""
    settings: Settings = {}
    values: dict[str, str] | None = None
    for whole in _decode(text).removeprefix("\ufeff").split("\n"):
        line = whole.strip(_BLANKS)
        if not line or line[0] in "#;":
            continue
        if line[0] == "[":
            values = settings.setdefault(_parse_header(line), {})
        elif values is None:
            raise _senseless(line)
        else:
            key, value = _parse_pair(line)
            values[key] = value
    return settings


# --- Requests -----------------------------------------------------------------------------------------------------


def _group_list(names: Iterable[str]) -> bytes:
    if isinstance(names, str):
        raise TypeError(f"names must be several, such as [{names!r}], not one str")
    lines = []
    for name in names:
        if "\n" in _checked_text("a name", name) or name == ".":
            raise InvalidName(
                f"{name!r} cannot stand in a list of names: a name there is neither '.' nor holds a line feed"
            )
        lines.append(_encode(name) + b"\n")
    return b"".join(lines) + b".\n"


def get(names: Iterable[str]) -> bytes:
    """Asks for the groups that these names and patterns select. Answered by `Data`."""
    return b"get delimited\n" + _group_list(names)


def merge(changes: Mapping[str, Mapping[str, str]], persist: bool = True) -> bytes:
    """Sets keys. Not answered, like every change but `test_and_merge`."""
    return (b"merge\n" if persist else b"merge nopersist\n") + write_settings(changes) + b".\n"


def test_and_merge(expected: Mapping[str, Mapping[str, str]], changes: Mapping[str, Mapping[str, str]]) -> bytes:
    """Sets keys if the settings hold every value of `expected`. Answered by `Result`."""
    return b"test-and-merge\n" + write_settings(expected) + b".\n" + write_settings(changes) + b".\n"


test_and_merge.__test__ = False  # type: ignore[attr-defined]  # its name looks like a test's to pytest


def overwrite(names: Iterable[str], replacement: Mapping[str, Mapping[str, str]]) -> bytes:
    """Removes the groups that the names and patterns select, and merges the replacement."""
    return b"overwrite\n" + _group_list(names) + write_settings(replacement) + b".\n"


def restore(names: Iterable[str]) -> bytes:
    """Returns the groups that the names and patterns select to their defaults."""
    return b"restore\n" + _group_list(names)


def subscribe(names: Iterable[str]) -> bytes:
    """Asks for a `Notification` of each change of the groups that the names and patterns select."""
    return b"subscribe\n" + _group_list(names)


# --- Messages -----------------------------------------------------------------------------------------------------


@dataclass(frozen=True, slots=True)
class Data:
    """The answer to `get`."""

    settings: Settings


@dataclass(frozen=True, slots=True)
class Result:
    """The answer to `test_and_merge`."""

    merged: bool


@dataclass(frozen=True, slots=True)
class Notification:
    """Groups that have changed, and what they hold now; an erased group is not in `settings`."""

    groups: list[str]
    settings: Settings


Message = Data | Result | Notification


class Receiver:
    """Makes messages of the bytes that a server sends, in pieces of whatever size.

    | stage | ends with | then |
    |---|---|---|
    | `keyword` | a line | `body` after `data`, `outcome` after `result`, `names` after `async change` |
    | `names` | a line `.` | `body` |
    | `body` | a line `.` | a message |
    | `outcome` | a line | a message |

    Thread safety: none of its own; the owner guards it.
    """

    def __init__(self) -> None:
        self._buffer = bytearray()  # what came since the last stage was complete
        self._searched = 0  # the stage does not end before this: a long one is searched once
        self._stage: Literal["keyword", "names", "body", "outcome"] = "keyword"
        self._groups: list[str] | None = None  # of the notification that is being read

    @property
    def is_between_messages(self) -> bool:
        """Whether nothing of a further message has come."""
        return not self._buffer and self._stage == "keyword"

    def receive(self, data: bytes) -> None:
        """Takes what came. More than `MAX_MESSAGE` without a whole message is a `ProtocolError`."""
        if len(self._buffer) + len(data) > MAX_MESSAGE:
            raise ProtocolError(f"a message is longer than {MAX_MESSAGE} bytes")
        self._buffer += data

    def next_message(self) -> Message | None:
        """The next whole message, or None until more has come. After a `ProtocolError` this object is of no use."""
        while True:
            is_line = self._stage in ("keyword", "outcome")
            if (end := self._end_of_line() if is_line else self._end_of_block()) < 0:
                return None
            with memoryview(self._buffer) as whole:
                content = bytes(whole[:end])
            del self._buffer[: end + (1 if is_line else 2)]
            self._searched = 0
            if (message := self._complete(content)) is not None:
                self._stage = "keyword"
                return message

    def _end_of_line(self) -> int:
        """Where the line feed is, or -1."""
        end = self._buffer.find(b"\n", self._searched)
        self._searched = len(self._buffer)
        return end

    def _end_of_block(self) -> int:
        """Where the line `.` is, or -1."""
        if self._buffer.startswith(b".\n"):
            return 0
        end = self._buffer.find(b"\n.\n", self._searched)
        self._searched = max(0, len(self._buffer) - 2)
        return -1 if end < 0 else end + 1

    def _complete(self, content: bytes) -> Message | None:
        """Takes the content of the stage; returns a message if it was the last one, or goes to the next."""
        if self._stage == "keyword":
            self._begin(content)
        elif self._stage == "outcome":
            return self._result(content)
        elif self._stage == "names":
            self._groups = _decode(content).split("\n")[:-1]
            self._stage = "body"
        else:
            return self._settings(content)
        return None

    def _begin(self, line: bytes) -> None:
        if line == b"data":
            self._stage = "body"
        elif line == b"result":
            self._stage = "outcome"
        elif line == b"async change":
            self._stage = "names"
        else:
            raise ProtocolError(f"{_decode(line[:100])!r} begins no message")

    def _result(self, line: bytes) -> Result:
        if line not in (b"ok", b"failure"):
            raise ProtocolError(f"{_decode(line[:100])!r} is no outcome of a test-and-merge")
        return Result(line == b"ok")

    def _settings(self, block: bytes) -> Data | Notification:
        settings = parse_settings(block)
        groups, self._groups = self._groups, None
        if groups is None:
            return Data(settings)
        # The server takes a name that holds a '*' for a pattern, and sends other groups with it.
        return Notification(groups, {name: settings[name] for name in groups if name in settings})
