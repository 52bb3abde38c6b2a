"""Client of korlo-settings-server, the settings store of a device.

    with korlo_settings.Client() as client:
        client.merge({"Audio": {"volume": "7"}})
        print(client.value("Audio", "volume"))

`Client` blocks; `korlo_settings.aio.Client` has the same methods for asyncio. `korlo_settings.protocol` is the protocol
alone, without input or output.
"""

from ._calls import Change
from ._client import Client, Watch
from .errors import (
    AnswerTimeout,
    ConnectionLost,
    InvalidAddress,
    InvalidName,
    ProtocolError,
    Refused,
    RestrictedGroup,
    SettingsError,
)
from .protocol import is_restricted

__all__ = [
    "AnswerTimeout",
    "Change",
    "Client",
    "ConnectionLost",
    "InvalidAddress",
    "InvalidName",
    "ProtocolError",
    "Refused",
    "RestrictedGroup",
    "SettingsError",
    "Watch",
    "is_restricted",
]
