"""scripts/web, as one runs it."""

import os
import re
import signal
import subprocess
from pathlib import Path

import pytest

from site_support import LIMIT, WEB, PlainBrowser, eventually

SCRIPT = str(WEB.parent / "scripts/web")


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
    processes = [Path(f"/proc/{name}/stat") for name in os.listdir("/proc") if name.isdigit()]
    sessions = [path.read_text().rpartition(") ")[2].split()[3] for path in processes if path.exists()]
    assert str(script.pid) not in sessions


def test_help_and_mistakes_are_told() -> None:
    told = subprocess.run([SCRIPT, "--help"], capture_output=True, text=True, check=True).stdout
    assert told.startswith("Usage: scripts/web [--port PORT]")
    wrong = subprocess.run([SCRIPT, "--nothing"], capture_output=True, text=True, check=False)
    assert wrong.returncode == 1 and "unknown argument '--nothing'; see --help" in wrong.stderr
