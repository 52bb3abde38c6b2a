#!/usr/bin/env python3
"""Has the compiler of a build look over sources without making anything of them; its warnings are errors where the
build says so.

    check_syntax.py BUILD EXPRESSION    every source in BUILD/compile_commands.json whose path the expression finds
"""

import concurrent.futures
import json
import os
import re
import shlex
import subprocess
import sys


def check(entry: dict[str, str]) -> str:
    """What the compiler says; nothing when it is content."""
    command = shlex.split(entry["command"])
    while not os.path.basename(command[0]).startswith("clang"):
        del command[0]  # the compiler cache
    del command[command.index("-o") : command.index("-o") + 2]
    ran = subprocess.run([*command, "-fsyntax-only"], cwd=entry["directory"], capture_output=True, text=True, check=False)
    return ran.stderr if ran.returncode != 0 else ""


def main(build: str, expression: str) -> int:
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        entries = [entry for entry in json.load(file) if re.search(expression, entry["file"])]
    if not entries:
        print(f"no source in {build} matches {expression}", file=sys.stderr)
        return 1
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as threads:
        complaints = [text for text in threads.map(check, entries) if text != ""]
    print("".join(complaints), end="")
    return 1 if complaints else 0


sys.exit(main(*sys.argv[1:]))
