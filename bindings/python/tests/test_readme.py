"""The examples of the README do what it says."""

from pathlib import Path

import pytest

from support import Server

README = (Path(__file__).parents[1] / "README.md").read_text()
EXAMPLES = [block.split("```")[0] for block in README.split("```python\n")[1:]]
OUTPUTS = [block.split("```")[0] for block in README.split("```text\n")[1:]]


@pytest.mark.parametrize(("example", "output"), zip(EXAMPLES, OUTPUTS, strict=True))
def test_an_example_prints_what_stands_below_it(
    server: Server, monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str], example: str, output: str
) -> None:
    monkeypatch.setattr("korlo_settings._address.DEFAULT_SOCKET", str(server.path))
    exec(compile(example, "README.md", "exec"), {"__name__": "__main__"})
    assert capsys.readouterr().out == output
