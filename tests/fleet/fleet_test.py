"""What the end-to-end run of scripts/fleet does not show of the loader and the questions.

    fleet_test.py REPORT_TOOL [unittest's arguments]

Run by scripts/fleet --short."""

import json
import os
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
        self.directory = directory.name
        for shard in STORE:
            shard.sql("TRUNCATE TABLE shard.incidents; TRUNCATE TABLE shard.incidents_by_day; "
                      "TRUNCATE TABLE shard.active_devices")

    def load(self, *arguments):
        return subprocess.run(
            [sys.executable, "-B", f"{FLEET}/load", f"--client={STORE.client('loader')}",
             f"--report={REPORT}", "--patience=0", f"--spool={self.directory}/spool", *arguments],
            capture_output=True, text=True, check=False)

    def load_rows(self, *lines):
        with open(f"{self.directory}/rows", "wb") as file:
            file.writelines(lines)
        return self.load("--rows", f"{self.directory}/rows")

    def write_log(self, device, ms=DAY_MS):
        hang = generate.Hang("p", "w", generate.WAITS[0], ("commit_cache",), 1, 0, 0, 3)
        os.makedirs(f"{self.directory}/logs/{device}", exist_ok=True)
        with open(f"{self.directory}/logs/{device}/quorvel@{ms}.log", "w", encoding="utf-8") as log:
            log.write(generate.log_text(hang, generate.Incident(ms, 3, 0, 0, 0, 0)))

    def ask(self, *arguments):
        return subprocess.run(
            [sys.executable, "-B", f"{FLEET}/ask", f"--client={STORE.client('reader')}",
             *arguments], capture_output=True, text=True, check=False)

    def rows(self, *arguments):
        done = self.ask("--format=json", *arguments)
        self.assertEqual(done.returncode, 0, done.stderr)
        return json.loads(done.stdout)["rows"]

    def incidents(self):
        return sum(hang["incidents"] for hang in self.rows("top", *PERIOD))

    def stop_shard(self):
        STORE[1].kill()
        self.addCleanup(lambda: STORE[1].process or STORE[1].start())


class LoadTest(StoreTest):
    def test_bad_lines_neither_stop_nor_change_the_good_ones(self):
        bad = [b"{garbage\n", b"{garbage\n", row(written_ms=0), row(threads=-1),
               row(watched_user=[1]), row(label_keys=["serial"]), b'"\xff"\n']
        good = [row(written_ms=DAY_MS + number) for number in range(20)]
        done = self.load_rows(*good[:10], *bad, b"\n", *good[10:])
        self.assertIn("20 rows stored", done.stderr)
        self.assertIn(f"{len(bad)} lines rejected", done.stderr)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(self.incidents(), 20)
        [name] = os.listdir(f"{self.directory}/spool/rejected")
        with open(f"{self.directory}/spool/rejected/{name}", encoding="utf-8") as file:
            reasons = [json.loads(line)["reason"] for line in file]
        self.assertEqual(len(reasons), len(bad))
        self.assertIn("has no label `device`", reasons)

    def test_a_line_that_only_the_server_refuses_is_found(self):
        # A lone surrogate is JSON to us and none to the server.
        refused = row(watch="w").replace(b'"w"', b'"\\ud800"')
        done = self.load_rows(row(), refused, row(written_ms=DAY_MS + 1))
        self.assertIn("2 rows stored", done.stderr)
        self.assertIn("1 lines rejected", done.stderr)

    def test_a_newer_tools_key_is_no_reason_to_reject(self):
        self.assertEqual(self.load_rows(row(cpu_percent=3)).returncode, 0)
        self.assertEqual(self.incidents(), 1)

    def test_a_devices_name_cannot_become_an_option_or_sql(self):
        name = "--rows'); DROP TABLE shard.incidents; -- \"\\{top:UInt32}"
        self.write_log(name)
        done = self.load(f"{self.directory}/logs")
        self.assertEqual(done.returncode, 0, done.stderr)
        [incident] = self.rows("incidents", *PERIOD, f"signature={self.signature()}")
        self.assertEqual(incident["device"], name)

    def test_two_devices_do_not_become_one_by_their_names(self):
        for name in ("a\n", "a\x01", "b"):
            self.write_log(name)
        done = self.load(f"{self.directory}/logs")
        self.assertEqual(done.returncode, 1)
        self.assertIn(r"rename the directory 'a\x01'", done.stderr)
        self.assertEqual([one["device"] for one in self.rows(
            "incidents", *PERIOD, f"signature={self.signature()}")], ["b"])

    def signature(self):
        return self.rows("top", *PERIOD)[0]["signature_id"]

    def test_what_is_stored_is_read_again_only_when_it_changes(self):
        self.write_log("a")
        self.assertEqual(self.load(f"{self.directory}/logs").returncode, 0)
        unread = self.load("--report=/bin/false", f"{self.directory}/logs")
        self.assertIn(" 0 rows stored", unread.stderr)
        self.assertEqual(unread.returncode, 0)
        self.write_log("a", DAY_MS + 5)
        self.assertIn(" 2 rows stored", self.load(f"{self.directory}/logs").stderr)
        self.assertEqual(self.incidents(), 2)

    def test_an_unreadable_log_is_named_and_the_others_are_stored(self):
        self.write_log("a")
        with open(f"{self.directory}/logs/a/quorvel@5.log", "w", encoding="utf-8") as log:
            log.write("no incident\n")
        done = self.load(f"{self.directory}/logs")
        self.assertEqual(done.returncode, 1)
        self.assertIn("quorvel@5.log", done.stderr)
        self.assertEqual(self.incidents(), 1)

    def test_a_report_tool_that_fails_is_asked_again(self):
        self.write_log("a")
        self.assertEqual(self.load("--report=ls", f"{self.directory}/logs").returncode, 1)
        self.load(f"{self.directory}/logs")
        self.assertEqual(self.incidents(), 1)

    def test_rows_wait_in_the_spool_for_a_shard_and_count_once(self):
        lines = [row(written_ms=DAY_MS + number, label_values=[f"d{number}"])
                 for number in range(50)]
        self.stop_shard()
        done = self.load_rows(*lines)
        self.assertEqual(done.returncode, 1)
        self.assertIn("1 batches are kept", done.stderr)
        STORE[1].start()
        self.assertIn(" 50 rows stored", self.load("--rows", f"{self.directory}/rows").stderr)
        self.assertEqual(self.incidents(), 50)

    def test_a_spool_that_a_kill_left_torn_loses_nothing(self):
        self.load_rows(row())
        spool = f"{self.directory}/spool"
        with open(f"{spool}/done", "a", encoding="utf-8") as done:
            done.write('["/torn')
        for name, content in (("1.rows.tmp", b"{"), ("2.rows", row(written_ms=DAY_MS + 1)),
                              ("3.units", b'[["unit", "stamp"]]')):
            with open(f"{spool}/pending/{name}", "wb") as file:
                file.write(content)
        self.assertEqual(self.load("--rows", f"{self.directory}/rows").returncode, 0)
        self.assertEqual(os.listdir(f"{spool}/pending"), [])
        self.assertEqual(self.incidents(), 2)

    def test_a_server_that_is_away_is_named_before_anything_is_read(self):
        done = self.load("--port=1", self.directory)
        self.assertEqual(done.returncode, 1)
        self.assertIn("Connection refused", done.stderr)
        self.assertFalse(os.path.exists(f"{self.directory}/spool"))

    def test_a_bad_count_of_devices_loads_none(self):
        path = f"{self.directory}/active"
        for bad in ("2026-11-31,b,5", f"{DAY},b,-1", f"{DAY},b", f"{DAY},b,many"):
            with open(path, "w", encoding="utf-8") as file:
                file.write(f"day,fingerprint,devices\n{DAY},b,5\n{bad}\n")
            done = self.load("--active", path)
            self.assertEqual(done.returncode, 1)
            self.assertIn("line 3", done.stderr)
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
            done = self.ask("--port=1", *arguments)
            self.assertEqual(done.returncode, 2, done.stderr)
            self.assertIn(message, done.stderr)

    def test_half_a_fleet_is_refused_or_said(self):
        self.load_rows(*(row(label_values=[f"d{number}"]) for number in range(50)))
        self.stop_shard()
        refused = self.ask("top", *PERIOD)
        self.assertEqual((refused.returncode, refused.stdout), (1, ""))
        self.assertIn(f"1 of 2 shards do not answer (127.0.0.1:{STORE[1].port})", refused.stderr)
        partial = json.loads(self.ask("top", "--partial", "--format=json", *PERIOD).stdout)
        self.assertIn("1 of 2 shards", partial["partial"])
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
    def run_as(self, role, statement, source=b""):
        return subprocess.run(["clickhouse-client", f"--config-file={STORE.client(role)}",
                               "--query", statement], input=source, capture_output=True,
                              check=False)

    def test_the_loader_cannot_read_the_fleet(self):
        self.load_rows(*(row(label_values=[f"d{number}"]) for number in range(50)))
        for table in ("shard.incidents", "intake.incidents", "fleet.incidents"):
            time.sleep(1)  # the quota's interval
            self.assertNotEqual(
                self.run_as("loader", f"SELECT device FROM {table}").returncode, 0)
        self.assertNotEqual(self.run_as("loader", "DROP TABLE shard.incidents").returncode, 0)

    def test_the_reader_cannot_write(self):
        done = self.run_as("reader", "INSERT INTO shard.incidents FORMAT JSONEachRow", row())
        self.assertNotEqual(done.returncode, 0)
        self.assertEqual(self.rows("top", *PERIOD), [])


class RetainTest(StoreTest):
    def test_only_old_weeks_go(self):
        now_ms = int(time.time()) * 1000
        week_ms = 7 * generate.DAY_MS
        self.load_rows(*(row(written_ms=now_ms - age * week_ms) for age in range(6)))
        servers = [f"127.0.0.1:{shard.port}" for shard in STORE]
        for dry, left in (("--dry-run", 6), ("--weeks=3", 4)):
            subprocess.run([sys.executable, "-B", f"{FLEET}/retain", dry, "--weeks=3", *servers],
                           stdout=subprocess.DEVNULL, check=True)
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
