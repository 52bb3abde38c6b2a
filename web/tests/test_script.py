"""scripts/web, as one runs it."""

import contextlib
import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from site_support import LIMIT, WEB, PlainBrowser, eventually

SCRIPT = str(WEB.parent / "scripts/web")


def processes_of_session(session: int) -> int:
    """Those that have ended, and that nobody has asked how, do not count."""
    count = 0
    for process in Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):
            state = process.read_text().rpartition(") ")[2].split()
            count += int(state[3]) == session and state[0] != "Z"
    return count


@pytest.mark.parametrize("how", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_it_serves_the_demo_until_a_signal_and_leaves_nothing(how: signal.Signals, tmp_path: Path) -> None:
    command = [SCRIPT, "--port", "0", "--server", os.environ["KORLO_SETTINGS_SERVER"]]
    environment = {**os.environ, "TMPDIR": str(tmp_path / "folders")}
    (tmp_path / "folders").mkdir()
    output = tmp_path / "output"
    with output.open("w") as file:
        script = subprocess.Popen(command, stdout=file, env=environment, start_new_session=True)
    eventually(lambda: "Ctrl-C ends it" in output.read_text())
    said = output.read_text()
    address = re.search(r"http://127\.0\.0\.1:(\d+)/", said)
    assert address, said
    page = PlainBrowser(int(address[1])).get()
    assert page.forms()["Audio"].buttons == {"save", "add", "restore", "erase"}
    assert "pairingCode" not in page.text
    script.send_signal(how)
    assert script.wait(LIMIT) == 0
    assert list((tmp_path / "folders").iterdir()) == []
    eventually(lambda: processes_of_session(script.pid) == 0)


def test_help_and_mistakes_are_told() -> None:
    told = subprocess.run([SCRIPT, "--help"], capture_output=True, text=True, check=True).stdout
    assert told.startswith("Usage: scripts/web [--port PORT]")
    wrong = subprocess.run([SCRIPT, "--nothing"], capture_output=True, text=True, check=False)
    assert wrong.returncode == 1 and "unknown argument '--nothing'; see --help" in wrong.stderr
