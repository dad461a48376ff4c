"""A private broker for the session, started with `kelmsg bus`, and a
namespace of its own for every test."""

import os
import re
import signal
import subprocess

import pytest

TOOL = os.environ["KELMSG_TOOL"]


@pytest.fixture(scope="session")
def broker_url():
    broker = subprocess.Popen([TOOL, "bus"], stdout=subprocess.PIPE, text=True)
    line = broker.stdout.readline().strip()
    assert line.startswith("KELBUS_URL="), f"kelmsg bus printed {line!r}"
    yield line.removeprefix("KELBUS_URL=")
    broker.send_signal(signal.SIGINT)
    assert broker.wait(timeout=30) == 0


@pytest.fixture(autouse=True)
def bus(broker_url, request, monkeypatch):
    namespace = re.sub(r"\W", "_", request.node.name)
    monkeypatch.setenv("KELBUS_URL", f"{broker_url}/{namespace}")


def start(*args):
    """`kelmsg args...`, once its first line shows that it is on the bus."""
    process = subprocess.Popen([TOOL, *args], stdout=subprocess.PIPE, text=True)
    first = process.stdout.readline()
    assert first, f"kelmsg {args[0]} ended at once"
    return process

