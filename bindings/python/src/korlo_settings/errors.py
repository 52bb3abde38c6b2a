"""What can go wrong. Every error is a `SettingsError`, and also the built-in error that is nearest to it."""

from collections.abc import Iterable

__all__ = [
    "AnswerTimeout",
    "ConnectionLost",
    "InvalidAddress",
    "InvalidName",
    "ProtocolError",
    "Refused",
    "RestrictedGroup",
    "SettingsError",
]


class SettingsError(Exception):
    """The parent of all errors of this package."""


class ConnectionLost(SettingsError, ConnectionError):
    """The server cannot be reached, or the connection ended before the answer had come.

    After a change that was sent this leaves open whether the change was made: read to find out.
    """


class AnswerTimeout(SettingsError, TimeoutError):
    """The time-out was over before the call was. After a change, read to find out whether it was made."""


class ProtocolError(SettingsError):
    """An answer that makes no sense: something else than a settings server may listen there."""


class Refused(SettingsError, PermissionError):
    """The server's access rules do not allow the change; nothing was changed.

    `groups` are the names and patterns that are not allowed, as the change named them, at most 64.
    """

    groups: list[str]

    def __init__(self, message: str, groups: Iterable[str] = ()) -> None:
        super().__init__(message)
        self.groups = list(groups)


class RestrictedGroup(SettingsError, ValueError):
    """A change names a restricted group, which no client can change; nothing was sent."""


class InvalidName(SettingsError, ValueError):
    """A name, key or value that cannot be sent; nothing was."""


class InvalidAddress(SettingsError, ValueError):
    """A text that is no address of a settings server."""
