"""What users write, in both worlds, for mypy --strict; never run."""

from typing import assert_type

import korlo_settings
from korlo_settings import Change, Client, Refused, Watch, aio, protocol


def blocking() -> None:
    with Client("unix:/run/korlo-settings/socket", timeout=5.0) as client:
        assert_type(client, Client)
        assert_type(client.get("Audio", "Net/*"), dict[str, dict[str, str]])
        assert_type(client.value("Audio", "volume"), str | None)
        assert_type(client.test_and_merge({"Audio": {"volume": "3"}}, {"Audio": {"volume": "4"}}), bool)
        client.merge({"Audio": {"volume": "7"}}, persist=False)
        client.overwrite(["Net/*"], {"Net/eth0": {"mode": "dhcp"}})
        client.erase("Guests")
        try:
            client.restore("Audio")
        except Refused as error:
            assert_type(error.groups, list[str])
        assert_type(client.watch("Audio"), Watch)
        for change in client.watch("Audio", initial=False):
            assert_type(change, Change)
            assert_type(change.groups, list[str])
            assert_type(change.settings, dict[str, dict[str, str]])
        client.merge({"Audio": {"volume": 7}})  # type: ignore[dict-item]
        client.overwrite(5)  # type: ignore[arg-type]
    assert_type(korlo_settings.is_restricted("Audio"), bool)


async def asynchronous() -> None:
    async with aio.Client() as client:
        assert_type(client, aio.Client)
        assert_type(await client.get("Audio"), dict[str, dict[str, str]])
        assert_type(await client.value("Audio", "volume"), str | None)
        assert_type(await client.test_and_merge({}, {"Audio": {"volume": "4"}}), bool)
        await client.merge({"Audio": {"volume": "7"}})
        assert_type(await client.watch("Audio"), aio.Watch)
        async for change in client.watch("Audio"):
            assert_type(change, Change)
        async with client.watch("Audio") as watch:
            assert_type(await anext(watch), Change)


def framing(receiver: protocol.Receiver) -> None:
    assert_type(protocol.get(["Audio"]), bytes)
    assert_type(receiver.next_message(), protocol.Data | protocol.Result | protocol.Notification | None)
