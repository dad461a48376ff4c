#!/usr/bin/env python3
"""The demo's job monitor, in Python.

It prepares a job directory, starts the C++ solver example with its own view
of that directory, and drives the whole job over the bus:

  1. stamp files: does the solver see the monitor's job directory?
  2. push the input deck to the solver (verified by the solver's receipt);
  3. follow the solver's progress reports (analysis XML messages);
  4. pull the result file back (verified) and compare it byte for byte;
  5. send a soft kill, and notice the solver's departure from the bus.

  job_monitor.py SOLVER_PROGRAM WORK_DIR
"""

import io
import os
import subprocess
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path

import kelmsg

SOLVER = "solver"
JOB = "job42"
DECK = (
    "*HEADING\nbracket under load\n*NODE\n1, 0.0, 0.0\n2, 1.0, 0.0\n3, 1.0, 1.0\n"
    "*ELEMENT, TYPE=CPS3\n1, 1, 2, 3\n*STEP\n*STATIC\n*END STEP\n"
)


class SolverReports:
    """What the monitor has heard from the solver so far."""

    def __init__(self) -> None:
        self.kinds: list[str] = []
        self.shared = False
        self.result = ""
        self.left = False

    def on_document(self, message: kelmsg.Xml, sender: str) -> None:
        try:
            root = ElementTree.fromstring(message.document)
        except ElementTree.ParseError:
            return  # not ours to judge
        if root.tag == "Progress":
            print(f"monitor: solver at {root.get('percent', '?')} %")
            return
        if root.tag == "SolverReady":
            self.shared = root.get("shared") == "yes"
        if root.tag == "Finished":
            self.result = root.get("result", "")
        self.kinds.append(root.tag)

    def on_departure(self, departure: kelmsg.Departure) -> None:
        if departure.application == SOLVER:
            self.left = True


def fail(what: str) -> int:
    print(f"monitor: FAILED: {what}")
    return 1


def run(solver_program: str, base: Path) -> int:
    solver_base = base / "solver-view"  # the same directory, by another name
    (base / JOB).mkdir(parents=True, exist_ok=True)
    solver_base.symlink_to(base, target_is_directory=True)
    (base / JOB / "model.inp").write_text(DECK)

    reports = SolverReports()
    with kelmsg.Application("monitor") as bus:
        bus.handle(kelmsg.Xml, reports.on_document)
        bus.on_departure(reports.on_departure)

        kelmsg.stamp(str(base), JOB, "monitor")
        solver = subprocess.Popen([solver_program, str(solver_base), JOB])
        if not bus.wait(until=lambda: "SolverReady" in reports.kinds, timeout=30):
            return fail("the solver did not report in")
        kelmsg.unstamp(str(base), JOB, "monitor")
        print(
            f"monitor: the solver sees the job directory through {solver_base}: "
            f"{'yes' if reports.shared else 'no'}"
        )
        if not reports.shared:
            return fail("no shared job directory")

        receipt = bus.push(
            SOLVER, "model.inp", "solver-input.inp",
            base_dir=str(base), job_dir=JOB, peer_base_dir=str(solver_base), peer_job_dir=JOB,
        )
        print(f"monitor: input deck pushed: {receipt}")
        bus.send(SOLVER, kelmsg.Xml('<Run deck="solver-input.inp"/>'))
        if not bus.wait(until=lambda: "Finished" in reports.kinds, timeout=60):
            return fail("the solver did not finish")

        verified = bus.pull(
            SOLVER, reports.result, "model.res.pulled",
            base_dir=str(base), job_dir=JOB, peer_base_dir=str(solver_base), peer_job_dir=JOB,
        )
        identical = (base / JOB / reports.result).read_bytes() == (
            base / JOB / "model.res.pulled"
        ).read_bytes()
        print(f"monitor: result pulled back ({verified}), identical byte for byte: "
              f"{'yes' if identical else 'no'}")
        if not identical:
            return fail("the pulled result differs")

        bus.send(SOLVER, kelmsg.Kill())
        if not bus.wait(until=lambda: reports.left, timeout=30):
            return fail("the solver did not leave")
        print("monitor: the solver has left the bus; job done")
    return 0 if solver.wait() == 0 else fail("the solver failed")


def main() -> int:
    if len(sys.argv) != 3:
        print("usage: job_monitor.py SOLVER_PROGRAM WORK_DIR", file=sys.stderr)
        return 2
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(line_buffering=True)
    try:
        return run(sys.argv[1], Path(os.path.abspath(sys.argv[2])))
    except (kelmsg.BusError, kelmsg.TransferError) as failure:
        return fail(str(failure))


if __name__ == "__main__":
    sys.exit(main())
