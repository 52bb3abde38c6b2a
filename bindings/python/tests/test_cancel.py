"""A cancelled call never poisons the connection: whatever comes after it gets its own answer."""

import asyncio
import os
import random
from collections.abc import AsyncIterator, Callable, Coroutine, Generator
from contextlib import asynccontextmanager, suppress
from pathlib import Path
from typing import Any

from korlo_settings.aio import Client
from support import Server

# How many calls are cancelled; KORLO_CANCELS=10000 for the long form.
CANCELS = int(os.environ.get("KORLO_CANCELS", "100"))
GROUPS = {f"G{n}": {"id": str(n)} for n in range(50)}


@asynccontextmanager
async def slow_proxy(folder: Path, server: Server, generator: random.Random) -> AsyncIterator[str]:
    """Passes on everything in pieces of one to three bytes, and lets everybody else run after each."""
    tasks: set[asyncio.Task[None]] = set()

    async def pump(source: asyncio.StreamReader, target: asyncio.StreamWriter) -> None:
        with suppress(OSError):
            while data := await source.read(65536):
                while data:
                    size = generator.randint(1, 3)
                    target.write(data[:size])
                    data = data[size:]
                    await asyncio.sleep(0)
        target.close()

    async def serve(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        there_reader, there_writer = await asyncio.open_unix_connection(str(server.path))
        for pumping in (pump(reader, there_writer), pump(there_reader, writer)):
            task = asyncio.create_task(pumping)
            tasks.add(task)
            task.add_done_callback(tasks.discard)

    listener = await asyncio.start_unix_server(serve, str(folder / "proxy"))
    yield f"unix:{folder / 'proxy'}"
    listener.close()
    await listener.wait_closed()
    while tasks:
        await asyncio.wait(tasks)


class CancelledAt:
    """Awaits a call and cancels it, as anybody may cancel a task, where it waits for the so-manieth time."""

    def __init__(self, call: Coroutine[Any, Any, object], step: int) -> None:
        self._call = call
        self._step = step

    def __await__(self) -> Generator[Any, Any, object]:
        steps = 0
        awaiting = self._call.__await__()
        task = asyncio.current_task()
        assert task is not None
        try:
            waits_for = awaiting.send(None)
            while True:
                steps += 1
                if steps == self._step:
                    task.cancel()
                try:
                    sent = yield waits_for
                except BaseException as error:
                    waits_for = awaiting.throw(error)
                else:
                    waits_for = awaiting.send(sent)
        except StopIteration as done:
            return done.value


async def is_cancelled_at(call: Coroutine[Any, Any, object], step: int) -> bool:
    async def run() -> object:
        return await CancelledAt(call, step)

    task = asyncio.create_task(run())
    await asyncio.wait([task])
    if not task.cancelled():
        task.result()
    return task.cancelled()


Calls = list[Callable[[Client, str], Coroutine[Any, Any, object]]]
CALLS: Calls = [
    lambda client, group: client.get(group, "G*"),
    lambda client, group: client.value(group, "id"),
    lambda client, group: client.merge({"Scratch": {"a": group}}),
    lambda client, group: client.test_and_merge({group: GROUPS[group]}, {"Scratch": {"b": group}}),
    lambda client, group: client.test_and_merge({group: {"id": "none"}}, {"Scratch": {"c": group}}),
    lambda client, group: client.overwrite(["Scratch"], {"Scratch": {"d": group}}),
    lambda client, group: client.erase("Scratch"),
    lambda client, group: client.restore("Scratch"),
]


def test_a_call_that_is_cancelled_at_any_await_poisons_nothing(folder: Path, server: Server) -> None:
    seed = random.randrange(2**32)
    print("seed", seed)
    generator = random.Random(seed)

    async def main() -> None:
        cancelled, most = 0, 0
        async with slow_proxy(folder, server, generator) as address, Client(address, 60) as client:
            await client.merge(GROUPS)
            while cancelled < CANCELS:
                call = generator.choice(CALLS)
                step = 1
                # Every await of a call in the long form, some in the short one.
                while cancelled < CANCELS and await is_cancelled_at(call(client, generator.choice(list(GROUPS))), step):
                    cancelled += 1
                    most = max(most, step)
                    step += 1 if CANCELS >= 10000 else generator.randint(1, 20)
                    group = generator.choice(list(GROUPS))
                    assert await client.get(group) == {group: GROUPS[group]}
        assert most > 10

    asyncio.run(main())


def test_a_call_that_is_cancelled_at_any_time_poisons_nothing(folder: Path, server: Server) -> None:
    generator = random.Random(4711)

    async def main() -> None:
        async with slow_proxy(folder, server, generator) as address, Client(address, 60) as client:
            await client.merge(GROUPS)
            for _ in range(max(10, CANCELS // 100)):
                tasks = [asyncio.create_task(call(client, "G7")) for call in generator.sample(CALLS, 3)]
                for _ in range(generator.randint(0, 100)):
                    await asyncio.sleep(0)
                for task in tasks:
                    task.cancel()
                group = generator.choice(list(GROUPS))
                assert await client.get(group) == {group: GROUPS[group]}
                await asyncio.gather(*tasks, return_exceptions=True)

    asyncio.run(main())


def test_tasks_share_a_client_and_get_their_own_answers(server: Server) -> None:
    async def main() -> None:
        async with Client(server.address) as client:
            await client.merge(GROUPS)
            found = await asyncio.gather(*(client.get(group) for group in GROUPS))
            assert found == [{group: values} for group, values in GROUPS.items()]

    asyncio.run(main())


def test_a_cancelled_step_of_a_watch_loses_no_change(folder: Path, server: Server) -> None:
    generator = random.Random(4711)

    async def main() -> None:
        async with slow_proxy(folder, server, generator) as address, Client(address) as client:
            watch = await client.watch("Count", initial=False)
            for number in range(10):
                await client.merge({"Count": {"n": str(number)}})
                for step in range(1, 100):
                    found: list[str] = []

                    async def take() -> None:
                        found.append((await anext(watch)).settings["Count"]["n"])

                    if not await is_cancelled_at(take(), step):
                        break
                assert found == [str(number)]
            await watch.close()

    asyncio.run(main())


def test_a_watch_that_is_cancelled_while_it_subscribes_begins_anew(folder: Path, server: Server) -> None:
    generator = random.Random(4711)

    async def main() -> None:
        async with slow_proxy(folder, server, generator) as address, Client(address) as client:
            await client.merge({"Audio": {"volume": "3"}})
            watch = client.watch("Audio")

            async def take() -> dict[str, dict[str, str]]:
                return (await anext(watch)).settings

            step = 1
            while await is_cancelled_at(take(), step):
                step += 3
            await client.merge({"Audio": {"volume": "4"}})
            assert await take() == {"Audio": {"volume": "4"}}
            await watch.close()

    asyncio.run(main())


def test_close_ends_a_watch_and_a_call_of_other_tasks(server: Server) -> None:
    async def waits(watch: AsyncIterator[object]) -> int:
        return len([change async for change in watch])

    async def main() -> None:
        client = Client(server.address)
        one, other = await client.watch("*"), await client.watch("*", initial=False)
        tasks = [asyncio.create_task(waits(watch)) for watch in (one, other)]
        await asyncio.sleep(0)
        await one.close()
        assert await asyncio.wait_for(tasks[0], 10) <= 1
        server.stop()
        await asyncio.sleep(0.01)
        await client.close()
        assert await asyncio.wait_for(tasks[1], 10) == 0

    asyncio.run(main())


def test_an_outer_time_out_stays_the_callers_own(folder: Path, server: Server) -> None:
    async def main() -> None:
        async with Client(server.address) as client:
            watch = await client.watch("*", initial=False)
            for _ in range(3):
                with suppress(TimeoutError):
                    async with asyncio.timeout(0.01):
                        await anext(watch)
            await client.merge({"Audio": {"volume": "3"}})
            change = await asyncio.wait_for(anext(watch), 10)
            assert change.groups == ["Audio"]

    asyncio.run(main())
