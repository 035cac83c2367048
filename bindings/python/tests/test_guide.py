"""The programs of docs/guide/python.md print what it says."""

from __future__ import annotations

import pathlib
import re
import subprocess
import sys

import pytest
from conftest import LIMIT_S, process

SOURCES = pathlib.Path(__file__).resolve().parents[3]
PROGRAMS = SOURCES / "examples/guide/python"


def test_the_guide_shows_all_of_them():
    page = (SOURCES / "docs/guide/python.md").read_text(encoding="utf-8")
    shown = set(re.findall(r"<!-- examples/guide/python/(\S+) -->", page))
    assert shown == {file.name for file in PROGRAMS.iterdir()}


@pytest.mark.parametrize("name", sorted(file.stem for file in PROGRAMS.glob("*.out")))
def test_it_prints_what_is_shown(name, address):
    ended = subprocess.run([sys.executable, PROGRAMS / f"{name}.py", address], capture_output=True,
                           text=True, timeout=LIMIT_S)
    shown = (PROGRAMS / f"{name}.out").read_text(encoding="utf-8").replace("pipe:5000", address)
    assert ended.stdout + ended.stderr == shown


def test_hello(address):
    with process(sys.executable, PROGRAMS / "hello_server.py", address, until="press Enter to stop") as server:
        client = subprocess.run([sys.executable, PROGRAMS / "hello_client.py", address],
                                capture_output=True, text=True, timeout=LIMIT_S)
        assert client.stdout + client.stderr == "2 + 3 = 5\n"
        server.communicate("\n", timeout=LIMIT_S)
        assert server.returncode == 0
