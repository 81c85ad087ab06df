"""A directory of logs that a test makes, and quorvel-report as it is called on them.

A single test: QUORVEL_REPORT=PROGRAM python3 -B -m unittest reader_test -k cut_anywhere
"""

import json
import os
import pathlib
import subprocess
import tempfile
import unittest

PROGRAM = os.path.abspath(os.environ["QUORVEL_REPORT"])
LOG = "quorvel@1795382028123.log"


class ReportTest(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.dir = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def write(self, name, text):
        """Writes a log: "\\udcff" in its text is a byte of that value."""
        (self.dir / name).write_text(text, encoding="utf-8", errors="surrogateescape")

    def run_it(self, *options, status=0, environment=None, **more):
        env = {"PATH": os.environ["PATH"], "COLUMNS": "80", **(environment or {})}
        call = {"input": "", "stdout": subprocess.PIPE, "restore_signals": False, **more}
        done = subprocess.run([PROGRAM, *options], encoding="utf-8", stderr=subprocess.PIPE,
                              env=env, cwd=self.dir, check=False, timeout=100, **call)
        self.assertEqual(done.returncode, status, done.stderr)
        return done

    def lines(self, *options, **more):
        return [json.loads(line) for line in self.run_it(*options, **more).stdout.splitlines()]

    def read(self, text, name=LOG):
        """What is found in a log."""
        self.write(name, text)
        (incident,) = self.lines("--json", name)
        return incident
