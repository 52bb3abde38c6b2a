"""What both clients do alike: which requests a call sends, what its answers mean, and what a watch has to tell."""

import random
from collections.abc import Generator, Iterable, Mapping
from dataclasses import dataclass, field
from typing import Generic, TypeVar

from . import protocol
from ._address import Address, answer_timeout, closed, connection_lost
from .errors import InvalidName, ProtocolError, Refused, RestrictedGroup, SettingsError
from .protocol import REFUSED_GROUP, Data, Message, Notification, Result, Settings, is_restricted

Groups = Mapping[str, Mapping[str, str]]
T = TypeVar("T")

_CONFIRM = protocol.get([REFUSED_GROUP])


class TimeIsUp(Exception):
    """The call's time-out is over; never leaves this package."""


@dataclass(slots=True)
class Attempt:
    """What the caller has to hear when a call fails."""

    name: str
    may_change: bool
    is_sent: bool = field(default=False, init=False)  # at least in part

    def failure(self, reason: Exception, address: Address, seconds: float, is_closed: bool) -> SettingsError:
        """What the caller hears of it."""
        if is_closed:
            return closed(address)
        if isinstance(reason, TimeIsUp):
            return answer_timeout(address, self.name, seconds, self.is_sent, self.may_change)
        if isinstance(reason, ProtocolError):
            return ProtocolError(
                f"{self.name} failed at the settings server at {address}: {reason};"
                " check that a settings server, and one that is not older than this client, has this address"
            )
        if isinstance(reason, SettingsError):
            return reason
        return connection_lost(address, self.name, self.is_sent, self.may_change, reason)


@dataclass(slots=True)
class Call(Attempt, Generic[T]):
    """One call of a client: `steps` yields requests, is sent their answers and returns the result.

    The first request may be sent again if nothing of its answer has come.
    """

    steps: Generator[bytes, Message, T]


def check_timeout(timeout: float) -> float:
    longest = 1e6  # eleven days: what every wait of the system takes
    if not 0 < timeout < float("inf"):
        raise ValueError(f"a time-out is a positive number of seconds, not {timeout!r}")
    return min(float(timeout), longest)


def get(names: Iterable[str]) -> Call[Settings]:
    return Call("get", False, _read(protocol.get(names)))


def value(group: str, key: str) -> Call[str | None]:
    return Call("value", False, _read_value(protocol.get([group]), group, key))


def merge(changes: Groups, persist: bool) -> Call[None]:
    _refuse_restricted(changes)
    return Call("merge", True, _change("merge", protocol.merge(changes, persist)))


def test_and_merge(expected: Groups, changes: Groups) -> Call[bool]:
    _refuse_restricted(changes)
    return Call("test_and_merge", True, _test_and_merge(protocol.test_and_merge(expected, changes)))


def overwrite(names: Iterable[str], replacement: Groups, name: str = "overwrite") -> Call[None]:
    names = names if isinstance(names, str) else list(names)
    request = protocol.overwrite(names, replacement)
    _refuse_restricted(names)
    _refuse_restricted(replacement)
    return Call(name, True, _change(name, request))


def restore(names: Iterable[str]) -> Call[None]:
    names = list(names)
    request = protocol.restore(names)
    _refuse_restricted(names)
    return Call("restore", True, _change("restore", request))


def _refuse_restricted(names: Iterable[str]) -> None:
    for name in names:
        if isinstance(name, str) and is_restricted(name):
            raise RestrictedGroup(
                f"the group {name!r} is restricted: no client can change it, nothing was sent;"
                " leave it out, or change the restricted settings of the device"
            )


def _read(request: bytes) -> Generator[bytes, Message, Settings]:
    return settings_of((yield request))


def _read_value(request: bytes, group: str, key: str) -> Generator[bytes, Message, str | None]:
    return settings_of((yield request)).get(group, {}).get(key)


def _change(name: str, request: bytes) -> Generator[bytes, Message, None]:
    # The answer to the read behind the change tells that the change is carried out, and whether it was refused.
    _raise_refused(name, settings_of((yield request + _CONFIRM)))


def _test_and_merge(request: bytes) -> Generator[bytes, Message, bool]:
    answer = yield request
    if not isinstance(answer, Result):
        raise ProtocolError("another answer than a result came")
    if not answer.merged:
        _raise_refused("test_and_merge", settings_of((yield _CONFIRM)))
    return answer.merged


def settings_of(answer: Message) -> Settings:
    if not isinstance(answer, Data):
        raise ProtocolError("another answer than settings came")
    return answer.settings


def _raise_refused(name: str, settings: Settings) -> None:
    refusal = settings.get(REFUSED_GROUP)
    if refusal is None:
        return
    groups: list[str] = []
    while (group := refusal.get(f"group.{len(groups) + 1}")) is not None:
        groups.append(group)
    raise Refused(
        f"{name} was refused and changed nothing: the server's access rules do not allow this client"
        f" {', '.join(map(repr, groups))}; ask the device's operator for a rule"
        " (korlo-settings access check USER change GROUP tells what decides)",
        groups,
    )


# --- Watching -----------------------------------------------------------------------------------------------------


@dataclass(frozen=True, slots=True)
class Change:
    """Groups that have changed, and all that they hold now. An erased group is in `groups` and not in `settings`."""

    groups: list[str]
    settings: Settings


class View:
    """What the iterator of a watch has told of its groups, to tell only what differs from it.

    Thread safety: none of its own; the owner guards it.
    """

    def __init__(self, names: Iterable[str], initial: bool) -> None:
        names = list(names)
        if not names:
            raise InvalidName("a watch needs the name or pattern of a group: without any it would wait for ever")
        # The subscription goes first: what changes between the two is notified, and at the latest read.
        self.request = protocol.subscribe(names) + protocol.get(names)
        self._known: Settings | None = None
        self._tells_first_state = initial

    def refresh(self, settings: Settings) -> Change | None:
        """Takes the answer to the request: the present state, or what changed while there was no connection."""
        before, self._known = self._known, settings
        if before is None:
            return _change_of(list(settings), settings) if self._tells_first_state else None
        groups = [name for name in before | settings if before.get(name) != settings.get(name)]
        groups.sort(key=lambda name: name.encode("utf-8", "surrogateescape"))
        return _change_of(groups, settings) if groups else None

    def update(self, notification: Notification) -> Change | None:
        """Takes a notification. The server may send the same content twice; it is told once."""
        known = self._known
        if known is None:
            raise ProtocolError("a notification came before the settings")
        groups = [name for name in notification.groups if known.get(name) != notification.settings.get(name)]
        for name in groups:
            known.pop(name, None)
        known.update({name: notification.settings[name] for name in groups if name in notification.settings})
        return _change_of(groups, notification.settings) if groups else None


def _change_of(groups: list[str], settings: Settings) -> Change:
    # Copies: callers may do with them what they like.
    return Change(groups, {name: dict(settings[name]) for name in groups if name in settings})


class Backoff:
    """How long to wait before the next attempt to connect: 0.1 s at first, 5 s at most, less a random part.

    Thread safety: none of its own; the owner guards it.
    """

    _SHORTEST, _LONGEST = 0.1, 5.0

    def __init__(self) -> None:
        self._next = self._SHORTEST
        self._connected: float | None = None

    def connected(self, now: float) -> None:
        self._connected = now

    def delay(self, now: float) -> float:
        # A server that lets us in only to throw us out again is not asked at full speed.
        if self._connected is not None and now - self._connected >= self._LONGEST:
            self._next = self._SHORTEST
        self._connected = None
        delay = self._next * random.uniform(0.5, 1.0)
        self._next = min(2 * self._next, self._LONGEST)
        return delay
