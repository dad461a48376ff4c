"""kelmsg from Python against a real broker and real kelmsg processes."""

import gc
import os
import signal
import subprocess
import sys
import threading
from pathlib import Path

import kelmsg
import pytest
from conftest import TOOL, start

FILE_RECORD = kelmsg.FileRecord(
    kelmsg.FileRecord.CHUNK, source_application="me", target_file_name="f.bin",
    chunk_id=7, chunk=bytes(range(256)))


def receiving(app, *types):
    received = []
    for message_type in types:
        app.handle(message_type, lambda message, sender: received.append((message, sender)))
    return received


@pytest.mark.parametrize("message", [
    kelmsg.Text(b"\x00binary\xff"), kelmsg.Text(""), kelmsg.Xml("<Progress percent='50'/>"),
    kelmsg.Kill(), kelmsg.Kill(hard=True), FILE_RECORD])
def test_every_message_type_travels_unchanged(message):
    with kelmsg.Application("self", transfers=False) as app:
        received = receiving(app, type(message))
        app.send("self", message)
        assert app.wait(timeout=10)
        assert received == [(message, "self")]


@pytest.mark.parametrize("args, expected", [
    (["--text", "hello"], kelmsg.Text(b"hello")),
    (["--xml", "/dev/stdin"], kelmsg.Xml("<Run deck='a.inp'/>")),
    (["--kill", "soft"], kelmsg.Kill()),
    (["--kill", "hard"], kelmsg.Kill(hard=True))])
def test_messages_of_a_cpp_sender_reach_python_handlers(args, expected):
    with kelmsg.Application("inbox") as app:
        received = receiving(app, kelmsg.Text, kelmsg.Xml, kelmsg.Kill)
        subprocess.run([TOOL, "send", "inbox", *args], input="<Run deck='a.inp'/>", text=True,
                       check=True)
        assert app.wait(until=lambda: received, timeout=10)
        assert received[0][0] == expected
        assert received[0][1].startswith("kelmsg-send-")


@pytest.fixture
def server(tmp_path):
    (tmp_path / "served").mkdir()
    (tmp_path / "served" / "x.bin").write_bytes(os.urandom(200_000))
    process = start("serve", "fs1", "--dir", str(tmp_path / "served"))
    yield tmp_path
    process.send_signal(signal.SIGINT)
    process.wait(timeout=10)


@pytest.mark.parametrize("operation, outcome", [
    (lambda app, d: app.push("fs1", f"{d}/served/x.bin", "copy.bin"),
     "copy.bin: 200000 bytes, verified by fs1"),
    (lambda app, d: app.pull("fs1", "x.bin", f"{d}/pulled.bin"),
     "{d}/pulled.bin: 200000 bytes, verified"),
    (lambda app, d: app.pull("fs1", "missing.bin", f"{d}/pulled.bin"),
     "fs1 could not read missing.bin: No such file or directory; removed {d}/pulled.bin.partial"),
    (lambda app, d: app.push("fs1", f"{d}/missing.bin", "copy.bin"),
     "could not read {d}/missing.bin: No such file or directory"),
    (lambda app, d: app.push("nobody", f"{d}/served/x.bin", "copy.bin", timeout=1),
     "no receipt from nobody for copy.bin within 1 s")])
def test_transfers_end_as_the_cli_says(server, operation, outcome):
    with kelmsg.Application("client") as app:
        verified = not outcome.startswith(("fs1 could", "could", "no receipt"))
        call = lambda: operation(app, server).replace(str(server), "{d}")  # noqa: E731
        if verified:
            assert call() == outcome
        else:
            with pytest.raises(kelmsg.TransferError) as failure:
                call()
            assert str(failure.value).replace(str(server), "{d}") == outcome
    assert not (server / "pulled.bin.partial").exists()


@pytest.mark.parametrize("operation", [
    lambda app, d, tell: app.pull("fs1", "x.bin", f"{d}/served/copy.bin", progress=tell),
    lambda app, d, tell: app.push("fs1", f"{d}/served/x.bin", "copy.bin", progress=tell)])
def test_progress_counts_every_byte(server, operation):
    progress = []
    with kelmsg.Application("client") as app:
        operation(app, server, progress.append)
    assert progress == sorted(progress) and progress[-1] == 200_000
    assert (server / "served" / "copy.bin").read_bytes() == (server / "served" / "x.bin").read_bytes()


def test_departures_are_reported():
    departures = []
    with kelmsg.Application("watcher") as app:
        app.on_departure(departures.append)
        listener = start("listen", "watched")
        listener.send_signal(signal.SIGINT)
        assert app.wait(until=lambda: any(d.application == "watched" for d in departures),
                        timeout=10)
    gone = next(d for d in departures if d.application == "watched")
    assert gone.pid == listener.pid and gone.host and gone.user


@pytest.mark.parametrize("raised", [ValueError, KeyboardInterrupt])
def test_a_failing_handler_neither_kills_nor_stalls_the_bus(raised, monkeypatch):
    reported = []
    monkeypatch.setattr(sys, "unraisablehook", reported.append)
    texts = []

    def handler(message, sender):
        texts.append(message.data)
        if len(texts) == 1:
            raise raised("first one")

    with kelmsg.Application("fragile") as app:
        app.handle(kelmsg.Text, handler)
        app.send("fragile", kelmsg.Text("one"))
        app.send("fragile", kelmsg.Text("two"))
        if raised is KeyboardInterrupt:
            with pytest.raises(KeyboardInterrupt):
                app.wait(until=lambda: len(texts) == 2, timeout=10)
        assert app.wait(until=lambda: len(texts) == 2, timeout=10)
    assert texts == [b"one", b"two"]
    assert [type(r.exc_value) for r in reported] == ([raised] if raised is ValueError else [])


def test_ctrl_c_ends_a_wait():
    with kelmsg.Application("patient") as app:
        threading.Timer(0.5, os.kill, [os.getpid(), signal.SIGINT]).start()
        with pytest.raises(KeyboardInterrupt):
            app.wait()  # no time limit: only the signal ends it


def test_other_threads_run_and_send_while_one_waits():
    with kelmsg.Application("busy") as app:
        received = receiving(app, kelmsg.Text)
        ticks = []
        sender = threading.Thread(target=lambda: (ticks.extend(range(1000)),
                                                  app.send("busy", kelmsg.Text("from a thread"))))
        sender.start()
        assert app.wait(until=lambda: received, timeout=10)
        sender.join()
        assert received == [(kelmsg.Text("from a thread"), "busy")] and len(ticks) == 1000


@pytest.mark.parametrize("leave", ["with", "close", "collect"])
def test_leaving_frees_the_name(leave):
    if leave == "with":
        with kelmsg.Application("once") as app:
            assert app.open
    else:
        app = kelmsg.Application("once")
        app.handle(kelmsg.Text, lambda message, sender: app.send("x", message))  # a cycle
        if leave == "close":
            app.close()
        else:
            del app
            gc.collect()
    with kelmsg.Application("once") as again:
        assert again.open


@pytest.mark.parametrize("attempt, error", [
    (lambda env: kelmsg.Application("held"), (kelmsg.BusError, "held is already on the bus")),
    (lambda env: kelmsg.Application("other").send("held", kelmsg.Xml("")),
     (ValueError, "an XML document cannot be empty")),
    (lambda env: kelmsg.Application("a\0b"), (ValueError, "the application name holds a NUL")),
    (lambda env: kelmsg.Application("other").handle(kelmsg.FileRecord, print),
     (RuntimeError, "other keeps file records for its transfers")),
    (lambda env: (env.setenv("KELBUS_URL", "ftp://nowhere"), kelmsg.Application("other")),
     (kelmsg.BusError, "cannot join the bus: "))])
def test_failures_raise_with_the_bus_words(attempt, error, monkeypatch):
    holder = start("listen", "held")
    try:
        with pytest.raises(error[0], match=error[1]):
            attempt(monkeypatch)
    finally:
        gc.collect()
        holder.send_signal(signal.SIGINT)
        holder.wait(timeout=10)


def test_the_python_job_monitor_drives_the_cpp_solver(tmp_path):
    monitor = Path(__file__).parents[2] / "examples" / "job_monitor.py"
    run = subprocess.run([sys.executable, str(monitor), os.environ["KELMSG_SOLVER"],
                          str(tmp_path)], capture_output=True, text=True, timeout=120)
    assert run.returncode == 0, run.stdout + run.stderr
    assert "identical byte for byte: yes" in run.stdout
    assert "input deck pushed: job42/solver-input.inp: 125 bytes, verified by solver" in run.stdout


@pytest.mark.parametrize("check", [
    # Every name of the module in the stubs; pybind11 classes have a metaclass
    # of their own, and Departure no constructor.
    ["mypy.stubtest", "kelmsg", "--allowlist",
     str(Path(__file__).with_name("stubtest-allowlist.txt"))],
    # Signatures, as a script uses them.
    ["mypy", str(Path(__file__).parents[2] / "examples" / "job_monitor.py")]])
def test_the_stubs_describe_the_module(check, tmp_path):
    run = subprocess.run([sys.executable, "-m", *check], capture_output=True, text=True,
                         cwd=tmp_path)
    assert run.returncode == 0, run.stdout
