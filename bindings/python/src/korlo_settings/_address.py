"""Where the server is, how to connect to it, and what to say when that fails."""

import errno
import grp
import os
import pwd
import socket
from dataclasses import dataclass
from typing import Any

from .errors import AnswerTimeout, ConnectionLost, InvalidAddress, SettingsError

DEFAULT_SOCKET = "/run/korlo-settings/socket"
DEFAULT_TCP = ("127.0.0.1", 4711)

# A server that vanished without a word is noticed after a minute, also by a client that only listens.
_KEEPALIVE = {"TCP_KEEPIDLE": 30, "TCP_KEEPINTVL": 10, "TCP_KEEPCNT": 3}

# What getaddrinfo returns: family, type, protocol, canonical name, address.
Resolved = tuple[socket.AddressFamily, socket.SocketKind, int, str, Any]


@dataclass(frozen=True, slots=True)
class Address:
    """A Unix-domain socket by its path, or else a TCP host and port."""

    path: str | None
    host: str = ""
    port: int = 0

    def __str__(self) -> str:
        if self.path is not None:
            return f"unix:{self.path}"
        return f"[{self.host}]:{self.port}" if ":" in self.host else f"{self.host}:{self.port}"


def parse_address(text: str) -> Address:
    """An address as users write it: `HOST:PORT`, `[IPV6]:PORT` or `unix:PATH`."""
    if not isinstance(text, str):
        raise TypeError(f"an address must be a str, not {type(text).__name__}: {text!r}")
    if "\0" in text:
        raise _invalid(text, "it holds a zero byte")
    if text.startswith("unix:"):
        return _parse_path(text, text.removeprefix("unix:"))
    host, colon, port = text.rpartition(":")
    if not colon or text.endswith("]"):
        raise _invalid(text, "the port is missing")
    if not (port.isascii() and port.isdigit() and len(port) < 10 and 0 < int(port) <= 65535):
        raise _invalid(text, "the port must be a number from 1 to 65535")
    return Address(None, _without_brackets(text, host), int(port))


def _parse_path(text: str, path: str) -> Address:
    longest = 107
    if not path:
        raise _invalid(text, "the path is missing")
    try:
        length = len(os.fsencode(path))
    except UnicodeEncodeError:
        raise _invalid(text, "its path stands for no bytes") from None
    if length > longest:
        raise _invalid(text, f"its path is longer than {longest} bytes")
    return Address(path)


def _without_brackets(text: str, host: str) -> str:
    inside = host[1:-1]
    if inside and host[0] == "[" and host[-1] == "]" and not set(inside) & set("[]"):
        return inside
    if not host:
        raise _invalid(text, "the host is missing")
    if set(host) & set("[]"):
        raise _invalid(text, "its brackets hold no address")
    if ":" in host:
        raise _invalid(text, "an IPv6 address must stand in square brackets")
    return host


def _invalid(text: str, reason: str) -> InvalidAddress:
    return InvalidAddress(
        f"{text!r} is not the address of a settings server: {reason}; an address is HOST:PORT, [IPV6]:PORT or unix:PATH"
    )


def find_server() -> Address:
    """Where a client without an address looks: the server's usual socket if there is one, else its usual port."""
    if os.path.lexists(DEFAULT_SOCKET):
        return Address(DEFAULT_SOCKET)
    return Address(None, *DEFAULT_TCP)


def new_socket(family: int, kind: int = socket.SOCK_STREAM, protocol: int = 0) -> socket.socket:
    """A socket that never blocks, as both clients want it."""
    connection = socket.socket(family, kind, protocol)
    connection.setblocking(False)
    if family != socket.AF_UNIX:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)
        for option, value in _KEEPALIVE.items():
            if hasattr(socket, option):
                connection.setsockopt(socket.IPPROTO_TCP, getattr(socket, option), value)
    return connection


def numeric(address: Address) -> list[Resolved] | None:
    """The host, if it is written as numbers; what a name stands for has to be asked of the system, which takes time."""
    try:
        return list(socket.getaddrinfo(address.host, address.port, type=socket.SOCK_STREAM, flags=socket.AI_NUMERICHOST))
    except (socket.gaierror, UnicodeError):
        return None


def connect_failed(address: Address, reason: Exception) -> ConnectionLost:
    """One sentence: what failed, on what, why, and what to do."""
    text = f"the settings server at {address} cannot be reached: "
    if isinstance(reason, PermissionError):
        text += f"no permission for the socket; {_how_to_get_in(address)}"
    elif isinstance(reason, FileNotFoundError):
        text += (
            f"there is no such socket; start korlo-settings-server with --listen {address},"
            " or name the HOST:PORT of an older server, which listens on TCP alone"
        )
    elif isinstance(reason, ConnectionRefusedError):
        text += "nobody listens there; start korlo-settings-server, or name another address"
    elif isinstance(reason, (socket.gaierror, UnicodeError)):
        text += f"the host is unknown ({reason}); check its name, or give its number"
    else:
        text += f"{_why(reason)}; check the address and the network"
    return ConnectionLost(text)


def _how_to_get_in(address: Address) -> str:
    try:
        group = grp.getgrgid(os.stat(address.path or "").st_gid).gr_name
        user = pwd.getpwuid(os.geteuid()).pw_name
        return f"run as a member of the group {group!r} (adduser {user} {group})"
    except (OSError, KeyError):  # the folder does not let us look, or names are unknown
        return "run as a user, or in a group, that may open it"


def _why(reason: Exception) -> str:
    if isinstance(reason, OSError) and reason.errno:
        return f"{os.strerror(reason.errno)} ({errno.errorcode.get(reason.errno, reason.errno)})"
    return str(reason) or type(reason).__name__


def connection_lost(
    address: Address, operation: str, is_sent: bool, may_change: bool, reason: Exception
) -> ConnectionLost:
    """The connection ended before the answer had come."""
    if isinstance(reason, EOFError):
        why = "the server ended the connection, and its log says why"
    else:
        why = f"the connection is lost ({_why(reason)})"
    return ConnectionLost(f"{operation} failed at the settings server at {address}: {why}{_then(is_sent, may_change)}")


def answer_timeout(address: Address, operation: str, seconds: float, is_sent: bool, may_change: bool) -> AnswerTimeout:
    return AnswerTimeout(
        f"{operation} was not answered by the settings server at {address} within {seconds:g} s"
        f"{_then(is_sent, may_change)}"
    )


def _then(is_sent: bool, may_change: bool) -> str:
    if not may_change:
        return "; call again"
    if not is_sent:
        return "; nothing was changed, call again"
    return "; the change may or may not be made, read to find out"


def closed(address: Address) -> SettingsError:
    return SettingsError(f"the client of the settings server at {address} is closed; make a new one")
