"""Measures how many gets of one group a second the clients make, beside a bare socket that exchanges the same bytes.

    python3 gets.py unix:/run/korlo-settings/socket [SECONDS]

Give the client and the server one core, to compare with the numbers of the README: `taskset -c 0` before both.
"""

import asyncio
import os
import socket
import sys
import time
from collections.abc import Callable
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parents[1] / "src"))

from korlo_settings import Client, aio, protocol  # noqa: E402

GROUP = "Benchmark"
REQUEST = protocol.get([GROUP])
ANSWER = b"data\n[Benchmark]\n" + b"".join(b"key%d=value %d\n" % (n, n) for n in range(5)) + b".\n"


def rate(seconds: float, call: Callable[[], object]) -> float:
    """Calls a second."""
    count, start = 0, time.perf_counter()
    while (spent := time.perf_counter() - start) < seconds:
        for _ in range(100):
            call()
        count += 100
    return count / spent


def bare(seconds: float) -> float:
    """A socket in Python and one that answers it, with nothing around."""
    here, there = socket.socketpair()
    child = os.fork()
    if child == 0:
        here.close()
        while there.recv(65536):
            there.sendall(ANSWER)
        os._exit(0)
    there.close()

    def exchange() -> None:
        here.sendall(REQUEST)
        here.recv(65536)

    try:
        return rate(seconds, exchange)
    finally:
        here.close()
        os.waitpid(child, 0)


async def asynchronous(address: str, seconds: float) -> float:
    async with aio.Client(address) as client:
        count, start = 0, time.perf_counter()
        while (spent := time.perf_counter() - start) < seconds:
            for _ in range(100):
                await client.get(GROUP)
            count += 100
        return count / spent


def main() -> None:
    address, seconds = sys.argv[1], float(sys.argv[2]) if len(sys.argv) > 2 else 2.0
    with Client(address) as client:
        client.overwrite([GROUP], {GROUP: {f"key{n}": f"value {n}" for n in range(5)}})
        results = {
            "bare socket": bare(seconds),
            "Client": rate(seconds, lambda: client.get(GROUP)),
            "aio.Client": asyncio.run(asynchronous(address, seconds)),
        }
        client.erase(GROUP)
    for name, value in results.items():
        print(f"{name:12} {value:8.0f} gets a second, {value / results['bare socket']:.2f} of the bare socket")


if __name__ == "__main__":
    main()
