"""Programs that really hang: their logs, and what is found in them."""

import os
import pathlib
import subprocess
import tempfile
import time

from report_case import ReportTest

BUILDS = [pathlib.Path(build) for build in os.environ.get("HANGS_BUILDS", "").split(":")]
KINDS = ("mutex", "condition", "futex", "file-lock", "file-read", "file-write", "socket", "pipe",
         "poll", "child", "sleep", "signal", "memory", "stopped", "running")
INCIDENT_SECONDS = 30


class HangTest(ReportTest):
    def start(self, program, argument):
        """Starts a program that hangs, in a device root of its own."""
        root = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        for directory in ("data/log/reliability/quorvel", "data/log/dravik", "dev/__properties__"):
            (root / directory).mkdir(parents=True)
        (root / "dev/__properties__/dravik.event.12.config").write_text("1")
        process = subprocess.Popen([program, argument], stderr=subprocess.DEVNULL,
                                   env={**os.environ, "QUORVEL_HOST_ROOT": root})
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return root

    def incident(self, root, *options):
        """What is found in its log, once the incident was reported."""
        events = root / "data/log/dravik/events.jsonl"
        deadline = time.monotonic() + INCIDENT_SECONDS
        while not events.exists() or not events.read_text().endswith("\n"):
            self.assertLess(time.monotonic(), deadline, "no event")
            time.sleep(0.02)
        (incident,) = self.lines("--json", *options, root / "data/log/reliability/quorvel")
        return incident


class ReasonTest(HangTest):
    def test_the_reason_of_a_real_hang_is_not_found(self):
        roots = {kind: self.start(os.environ["HANGS"], kind) for kind in KINDS}
        needs_kernel = []
        for kind, root in roots.items():
            incident = self.incident(root)
            without_stack = "[no kernel stack" in pathlib.Path(incident["file"]).read_text()
            if incident["reason"]["kind"] == "unknown" and without_stack:
                needs_kernel.append(kind)
            else:
                self.assertEqual(incident["reason"]["kind"], kind, incident["reason"])
        if needs_kernel:
            self.skipTest(f"no kernel stack without privilege: {needs_kernel}")


class BuildsTest(HangTest):
    """Builds of the program by several compilers and with several optimisations."""

    def test_two_runs_of_two_builds_have_two_signatures(self):
        for root in [self.start(build, "append") for build in BUILDS + BUILDS]:
            self.assertEqual(self.incident(root)["signature"],
                             "hangs: hang: mutex: Append < Book < main::{lambda}")

    def test_inlined_calls_are_lost_despite_symbols(self):
        roots = {build: self.start(build, "settle") for build in BUILDS}
        for build, root in roots.items():
            incident = self.incident(root, "--symbols", build.parent.parent / "unstripped")
            self.assertEqual(incident["signature"],
                             "hangs: hang: mutex: Settle < Close < main::{lambda}")
            sources = [frame["source"] for frame in incident["threads"][0]["user"]
                       if "Settle" in str(frame)]
            self.assertRegex(sources[0], r"^hangs\.cpp:\d")
