"""What the end-to-end run of scripts/fleet does not show of the loader and the questions.

    fleet_test.py REPORT_TOOL [unittest's arguments]

Run by scripts/fleet --short."""

import json
import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

FLEET = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../fleet")
sys.path[:0] = [f"{FLEET}/trial"]

import generate  # noqa: E402
import shards  # noqa: E402

DAY = "2026-11-18"
DAY_MS = 1_795_000_000_000
PERIOD = (f"from={DAY}", f"to={DAY}")
REPORT = ""
STORE = None


def row(**changes):
    """A row as the report tool prints it."""
    whole = {"written_ms": DAY_MS, "armed_seconds": 3, "file": "d/quorvel@1.log", "program": "p",
             "watch": "w", "fingerprint": "b", "signature": "s", "signature_id": "1-1",
             "reason_kind": "poll", "reason_text": "waits", "watched_user": ["poll"],
             "watched_kernel": [], "threads": 1, "threads_failed": 0, "problems": 0,
             "label_keys": ["device"], "label_values": ["d"], **changes}
    return json.dumps(whole).encode() + b"\n"


class StoreTest(unittest.TestCase):
    """A store that is empty at the start of each test, and a directory."""

    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        for shard in STORE:
            shard.sql("TRUNCATE TABLE shard.incidents; TRUNCATE TABLE shard.incidents_by_day; "
                      "TRUNCATE TABLE shard.active_devices")

    def run_script(self, script, *arguments, status=0):
        done = subprocess.run([sys.executable, "-B", f"{FLEET}/{script}", *arguments],
                              cwd=self.directory, capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, status, done.stderr)
        return done

    def load(self, *arguments, status=0):
        """Runs the loader; returns its messages."""
        return self.run_script("load", f"--client={STORE.client('loader')}", f"--report={REPORT}",
                               "--patience=0", "--spool=spool", *arguments, status=status).stderr

    def load_rows(self, *lines, status=0):
        (self.directory / "rows").write_bytes(b"".join(lines))
        return self.load("--rows", "rows", status=status)

    def write_log(self, device, ms=DAY_MS):
        hang = generate.Hang("p", "w", generate.WAITS[0], ("commit_cache",), 1, 0, 0, 3)
        log = self.directory / "logs" / device / f"quorvel@{ms}.log"
        log.parent.mkdir(parents=True, exist_ok=True)
        log.write_text(generate.log_text(hang, generate.Incident(ms, 3, 0, 0, 0, 0)))

    def ask(self, *arguments, **more):
        return self.run_script("ask", f"--client={STORE.client('reader')}", *arguments, **more)

    def rows(self, *arguments):
        return json.loads(self.ask("--format=json", *arguments).stdout)["rows"]

    def incidents(self):
        return sum(hang["incidents"] for hang in self.rows("top", *PERIOD))

    def stop_shard(self):
        STORE[1].kill()
        self.addCleanup(lambda: STORE[1].process or STORE[1].start())


class LoadTest(StoreTest):
    def test_bad_lines_neither_stop_nor_change_the_good_ones(self):
        # A lone surrogate is JSON to us and none to the server; a newer tool may print more keys.
        bad = [b"{garbage\n", b"{garbage\n", row(written_ms=0), row(threads=-1),
               row(watched_user=[1]), row(label_keys=["serial"]), b'"\xff"\n', row(watch="\ud800")]
        good = [row(written_ms=DAY_MS + number, cpu_percent=3) for number in range(20)]
        messages = self.load_rows(*good[:10], *bad, b"\n", *good[10:], status=1)
        self.assertIn("20 rows stored", messages)
        self.assertIn(f"{len(bad)} lines rejected", messages)
        self.assertEqual(self.incidents(), 20)
        [rejected] = (self.directory / "spool/rejected").iterdir()
        reasons = [json.loads(line)["reason"] for line in rejected.read_text().splitlines()]
        self.assertEqual(len(reasons), len(bad))
        self.assertIn("has no label `device`", reasons)

    def test_a_devices_name_becomes_another_or_an_option_or_sql(self):
        odd = "--rows'); DROP TABLE shard.incidents; -- \"\\{top:UInt32}"
        for name in ("a\n", "a\x01", odd):
            self.write_log(name)
        self.assertIn(r"rename the directory 'a\x01'", self.load("logs", status=1))
        [hang] = self.rows("top", *PERIOD)
        incidents = self.rows("incidents", *PERIOD, f"signature={hang['signature_id']}")
        self.assertEqual([incident["device"] for incident in incidents], [odd])

    def test_what_is_stored_is_read_again_only_when_it_changes(self):
        self.write_log("a")
        self.load("logs")
        self.assertIn(" 0 rows stored", self.load("--report=/bin/false", "logs"))
        self.write_log("a", DAY_MS + 5)
        self.assertIn(" 2 rows stored", self.load("logs"))
        self.assertEqual(self.incidents(), 2)

    def test_an_unreadable_log_is_named_and_the_others_are_stored(self):
        self.write_log("a")
        (self.directory / "logs/a/quorvel@5.log").write_text("no incident\n")
        self.assertIn("quorvel@5.log", self.load("logs", status=1))
        self.assertEqual(self.incidents(), 1)

    def test_a_report_tool_that_fails_is_asked_again(self):
        self.write_log("a")
        self.load("--report=ls", "logs", status=1)
        self.load("logs")
        self.assertEqual(self.incidents(), 1)

    def test_rows_wait_in_the_spool_for_a_shard_and_count_once(self):
        lines = [row(written_ms=DAY_MS + number, label_values=[f"d{number}"])
                 for number in range(50)]
        self.stop_shard()
        self.assertIn("1 batches are kept", self.load_rows(*lines, status=1))
        STORE[1].start()
        self.assertIn(" 50 rows stored", self.load("--rows", "rows"))
        self.assertEqual(self.incidents(), 50)

    def test_a_spool_that_a_kill_left_torn_loses_nothing(self):
        self.load_rows(row())
        spool = self.directory / "spool"
        (spool / "done").write_text((spool / "done").read_text() + '["/torn')
        for name, content in (("1.rows.tmp", b"{"), ("2.rows", row(written_ms=DAY_MS + 1)),
                              ("3.units", b'[["unit", "stamp"]]')):
            (spool / "pending" / name).write_bytes(content)
        self.load("--rows", "rows")
        self.assertEqual(list((spool / "pending").iterdir()), [])
        self.assertEqual(self.incidents(), 2)

    def test_a_server_that_is_away_is_named_before_anything_is_read(self):
        self.assertIn("Connection refused", self.load("--port=1", ".", status=1))
        self.assertFalse((self.directory / "spool").exists())

    def test_a_bad_count_of_devices_loads_none(self):
        for bad in ("2026-11-31,b,5", f"{DAY},b,-1", f"{DAY},b", f"{DAY},b,many"):
            (self.directory / "active").write_text(f"day,fingerprint,devices\n{DAY},b,5\n{bad}\n")
            self.assertIn("line 3", self.load("--active", "active", status=1))
        self.assertEqual(self.rows("by_day", *PERIOD), [])


class AskTest(StoreTest):
    def test_a_value_is_a_value_whatever_it_holds(self):
        odd = "it's \\' -- {top:UInt32} /* \u00e9 \n\t"
        self.load_rows(row(signature_id=odd), row(written_ms=DAY_MS + 1))
        for value, count in ((odd, 1), ("' OR '1'='1", 0), ("\\", 0), ("1-1", 1)):
            self.assertEqual(len(self.rows("incidents", *PERIOD, f"signature={value}")), count)

    def test_a_wrong_call_says_what_is_wrong_and_asks_nothing(self):
        for arguments, message in (
                (("nothing",), "no question"), (("../queries/top",), "no question"),
                (("top", "from=2026-11-01"), "needs to="),
                (("top", "from=2026-02-30", f"to={DAY}"), "from="),
                (("top", "from=2026-11-1'", f"to={DAY}"), "no day"),
                (("top", *PERIOD, "top=1 OR 1"), "no number"),
                (("top", *PERIOD, "top=4294967296"), "no number"),
                (("top", *PERIOD, "limit=3"), "no parameter"),
                (("top", *PERIOD, "top=1", "top=2"), "twice")):
            self.assertIn(message, self.ask("--port=1", *arguments, status=2).stderr)

    def test_json_of_half_a_fleet_does_not_say_so(self):
        self.load_rows(*(row(label_values=[f"d{number}"]) for number in range(50)))
        self.stop_shard()
        partial = json.loads(self.ask("top", "--partial", "--format=json", *PERIOD).stdout)
        self.assertIn(f"1 of 2 shards do not answer (127.0.0.1:{STORE[1].port})",
                      partial["partial"])
        self.assertLess(partial["rows"][0]["incidents"], 50)

    def test_a_log_cannot_write_to_the_terminal(self):
        self.load_rows(row(watch="\x1b[2Jw\r\n", program="\u202ep"))
        shown = self.ask("top", *PERIOD).stdout
        self.assertIn("\ufffd[2Jw", shown)
        self.assertFalse(set("\x1b\r\u202e") & set(shown))

    def test_days_without_a_count_of_devices_keep_their_incidents(self):
        self.load_rows(row(), row(written_ms=DAY_MS + 1))
        [day] = self.rows("by_day", *PERIOD)
        self.assertEqual((day["incidents"], day["per_thousand"]), (2, None))


class RightsTest(StoreTest):
    def assert_refused(self, role, statement, source=b""):
        done = subprocess.run(["clickhouse-client", f"--config-file={STORE.client(role)}",
                               "--query", statement], input=source, capture_output=True)
        self.assertNotEqual(done.returncode, 0)

    def test_the_loader_cannot_read_the_fleet(self):
        self.load_rows(*(row(label_values=[f"d{number}"]) for number in range(50)))
        for table in ("shard.incidents", "intake.incidents", "fleet.incidents"):
            time.sleep(1)  # the quota's interval
            self.assert_refused("loader", f"SELECT device FROM {table}")
        self.assert_refused("loader", "DROP TABLE shard.incidents")

    def test_the_reader_cannot_write(self):
        self.assert_refused("reader", "INSERT INTO shard.incidents FORMAT JSONEachRow", row())
        self.assertEqual(self.rows("top", *PERIOD), [])


class RetainTest(StoreTest):
    def test_only_old_weeks_go(self):
        now_ms = int(time.time()) * 1000
        self.load_rows(*(row(written_ms=now_ms - age * 7 * generate.DAY_MS) for age in range(6)))
        servers = [f"127.0.0.1:{shard.port}" for shard in STORE]
        for dry, left in (("--dry-run", 6), ("--weeks=3", 4)):
            self.run_script("retain", dry, "--weeks=3", *servers)
            rows = self.rows("incidents", "from=2000-01-01", "to=2100-01-01", "signature=1-1")
            self.assertEqual(len(rows), left)


if __name__ == "__main__":
    REPORT = os.path.abspath(sys.argv.pop(1))
    shards.end_in_order()
    try:
        with tempfile.TemporaryDirectory(prefix="quorvel-fleet-") as home:
            with shards.Shards(home) as STORE:
                unittest.main()
    except KeyboardInterrupt:
        sys.exit("fleet_test: ended on request; everything is stopped and removed")
