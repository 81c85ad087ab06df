"""The whole way of a fleet's incidents, on two shards of the real server: log files, the report
tool, the loader, the store, every question; with kills on the way and the answers compared with
the truth. Run by scripts/fleet, which says more.

    run.py REPORT_TOOL [--short] [--figures FILE]
"""

import argparse
import collections
import contextlib
import datetime
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import time

import generate
import plots
import truth
from shards import FLEET, Shards, end_in_order

SEED = 20261123
REPETITIONS = 3
PATIENCE_SECONDS = 30
AWAIT_SECONDS = 60
LONGEST_ANSWER = 12

Size = collections.namedtuple("Size", "incidents logs small_batch")
FULL = Size(1_000_000, 9_000, 4_000)
SHORT = Size(20_000, 1_500, 150)
# Of the rows: loaded while the loader is killed, and while a shard is.
KILLED_SHARE = 0.05

YEARLY = 1_000_000_000
# From log files the report tool is to set the speed. A tenth for the loader's start, its last insert, and
# the servers, which run on the same cores.
OWN_SPEED = 0.9
GOALS = {
    "speed from log files, of the report tool alone": (OWN_SPEED, "at least"),
    "ready rows a second": (100_000, "at least"),
    "bytes of a stored incident": (40, "at most"),
    "slowest question of a week, s": (0.3, "at most"),
    "slowest question over all weeks, s": (0.3, "at most"),
    "most memory of a shard, GB": (0.5, "at most"),
}


def expect(condition, what):
    """Ends the run with what is not as it should be."""
    if not condition:
        raise RuntimeError(f"not as it should be: {what}")


def say(text):
    print(text, flush=True)


class Run:
    """One run, in its own directory."""

    def __init__(self, directory, shards, report, size):
        self.directory = directory
        self.shards = shards
        self.report = report
        self.size = size
        self.figures = {}
        self.answers = {}
        self.fleet = generate.Fleet(SEED, size.incidents, size.logs)

    def path(self, name):
        return f"{self.directory}/{name}"

    def generate(self):
        """Writes the log files, the rows in three pieces, and the counts of active devices."""
        started = time.monotonic()
        os.makedirs(self.path("logs"))
        self.fleet.write_logs(self.path("logs"))
        self.fleet.write_active(self.path("active.csv"))
        templates = self.fleet.templates(self.report, self.path("templates"))
        killed = int(self.size.incidents * KILLED_SHARE)
        first = self.size.logs
        for name, last in (("loader_killed", first + killed), ("shard_killed", first + 2 * killed),
                           ("rows", self.size.incidents)):
            self.fleet.write_rows(self.path(f"{name}.jsonl"), templates, first, last)
            first = last
        say(f"{self.size.incidents} incidents of {generate.HANGS} hangs, seed {SEED}: "
            f"{self.size.logs} log files, the others as rows; "
            f"{time.monotonic() - started:.0f} s")

    def loader(self, *arguments):
        return [sys.executable, f"{FLEET}/load", f"--client={self.shards.client('loader')}",
                f"--spool={self.path('spool')}", f"--report={self.report}", *arguments]

    def load(self, *arguments):
        """Runs the loader to its end; returns its seconds."""
        started = time.monotonic()
        done = subprocess.run(self.loader(*arguments), stderr=subprocess.PIPE, text=True,
                              check=False)
        expect(done.returncode == 0, f"the loader: {done.stderr}")
        return time.monotonic() - started

    def load_in_order(self):
        """Counts, logs, and most of the rows, undisturbed; notes the rates."""
        self.load("--active", self.path("active.csv"))
        seconds = self.load(self.path("logs"))
        self.figures["log files a second, stored"] = self.size.logs / seconds
        if self.size is FULL:
            alone = self.report_alone()
            self.figures["log files a second, the report tool alone"] = self.size.logs / alone
            self.figures["speed from log files, of the report tool alone"] = alone / seconds
        rows = self.size.incidents - self.size.logs - 2 * int(self.size.incidents * KILLED_SHARE)
        seconds = self.load("--rows", self.path("rows.jsonl"))
        self.figures["ready rows a second"] = rows / seconds
        say(f"loaded undisturbed: {self.size.logs} log files, and {rows} rows in {seconds:.1f} s")

    def report_alone(self):
        """Seconds of the report tool over the same logs, as many processes at a time."""
        started = time.monotonic()
        names = "\0".join(sorted(os.listdir(self.path("logs"))))
        subprocess.run(["xargs", "-0", "-n1", f"-P{os.cpu_count()}", self.report, "--rows"],
                       input=names.encode(), cwd=self.path("logs"), stdout=subprocess.DEVNULL,
                       check=True)
        return time.monotonic() - started

    @contextlib.contextmanager
    def loader_at_work(self, name):
        """A loader, once the store has some of its batches and not all; killed at the end."""
        before = self._done()
        loader = subprocess.Popen(
            self.loader("--rows", f"--batch={self.size.small_batch}",
                        f"--patience={PATIENCE_SECONDS}", self.path(f"{name}.jsonl")),
            stderr=subprocess.PIPE, text=True)
        try:
            deadline = time.monotonic() + AWAIT_SECONDS
            while self._done() < before + 2:
                expect(loader.poll() is None and time.monotonic() < deadline,
                       "the loader was to be disturbed in the middle")
                time.sleep(0.01)
            yield loader
        finally:
            loader.kill()
            loader.communicate()

    def _done(self):
        try:
            with open(self.path("spool/done"), encoding="utf-8") as file:
                return sum(1 for line in file if not line.isspace())
        except FileNotFoundError:
            return 0

    def kill_loader(self):
        """A loader that is killed twice and started again loses and doubles nothing."""
        name = "loader_killed"
        for _ in range(2):
            with self.loader_at_work(name):
                pass
            expect(os.listdir(self.path("spool/pending")), "the killed loader had work left")
        self.load("--rows", f"--batch={self.size.small_batch}", self.path(f"{name}.jsonl"))
        say("the loader was killed twice in the middle and run again")

    def kill_shard(self):
        """A loader outlasts a shard that is killed and comes back; nobody answers for half of the
        fleet meanwhile."""
        with self.loader_at_work("shard_killed") as loader:
            self.shards[1].kill()
            values = ["by_hour", *self.period()]
            refused = self.ask(*values)
            expect(refused.returncode == 1 and "1 of 2 shards" in refused.stderr,
                   f"an answer for half of the fleet: {refused.stdout} {refused.stderr}")
            partial = self.ask("--partial", *values)
            expect(partial.returncode == 0 and "PARTIAL: 1 of 2 shards" in partial.stdout,
                   f"an answer for a part that says so: {partial.stderr}")
            expect(loader.poll() is None, "the loader waits for the shard")
            self.shards[1].start()
            messages = loader.communicate(timeout=AWAIT_SECONDS)[1]
        expect(loader.returncode == 0, f"the loader outlasts a killed shard: {messages}")
        say("a shard was killed in the middle of a load and started again")

    def load_again(self):
        """What is loaded a second time, from a new spool, counts once."""
        os.rename(self.path("spool"), self.path("first_spool"))
        self.load("--rows", self.path("loader_killed.jsonl"))
        self.load(self.path("logs"))
        say("some rows and all logs were loaded a second time")

    def period(self):
        return (f"from={generate.FIRST_DAY}", f"to={generate.day_of(generate.DAYS - 1)}")

    def ask(self, *arguments):
        return subprocess.run(
            [sys.executable, f"{FLEET}/ask", f"--client={self.shards.client('reader')}",
             *arguments], capture_output=True, text=True, check=False)

    def question(self, name, *values):
        """Asks, compares with the truth; returns the rows."""
        seconds = []
        for _ in range(REPETITIONS if self.size is FULL else 1):
            started = time.monotonic()
            done = self.ask("--format=json", name, *values)
            seconds.append(time.monotonic() - started)
            expect(done.returncode == 0, f"{name}: {done.stderr}")
        rows = json.loads(done.stdout)["rows"]
        expected = getattr(truth.Truth(self.fleet), name)(dict(
            value.split("=", 1) for value in values))
        wrong = truth.difference(expected, rows)
        expect(wrong is None, f"the answer to {name}: {wrong}")
        expect(rows, f"an answer to {name}")
        self.answers[name, values] = (statistics.median(seconds), rows)
        say(f"  {name:<10} right, {len(rows):>4} rows, {statistics.median(seconds):.3f} s")
        return rows

    def ask_everything(self):
        """Every question, over all incidents where it has a period."""
        period = self.period()
        say("questions, over all incidents; the seconds are those of the whole call:")
        top = self.question("top", *period, "top=1000")
        week = (f"from={generate.day_of(generate.DAYS - 7)}", period[1])
        self.question("top", *week, "top=20")
        build = f"build={generate.fingerprint(generate.FIXED_IN_BUILD)}"
        self.question("new", build, "top=1000")
        self.question("gone", build, "top=1000")
        self.question("by_hour", *period)
        fixed = self.fleet.signatures[generate.FIXED_HANG]
        self.question("by_day", *period, f"signature={fixed}")
        for row in top[:4]:
            if row["signature_id"] != fixed:
                self.question("by_day", *period, f"signature={row['signature_id']}")
        self.question("spread", f"signature={fixed}")
        self.question("incidents", *period, f"signature={top[0]['signature_id']}", "top=20")
        for days in (period, week):
            self.question("reasons", *days)
            self.question("short", *days)
        self.question("by_hour", *week)
        expect(sum(row["incidents"] for row in top) == self.size.incidents,
               "every incident counted once")
        whole = {key: seconds for key, (seconds, _) in self.answers.items()}
        self.figures["slowest question of a week, s"] = max(
            seconds for (_, values), seconds in whole.items() if week[0] in values)
        self.figures["slowest question over all weeks, s"] = max(
            seconds for (_, values), seconds in whole.items() if week[0] not in values)

    def weigh(self):
        """Bytes of a stored incident and the shards' memory."""
        sizes = {}
        for shard in self.shards:
            for line in shard.sql(
                    "SELECT table, sum(bytes_on_disk), sum(rows) FROM system.parts "
                    "WHERE database = 'shard' AND active GROUP BY table").splitlines():
                table, size, _ = line.split("\t")
                sizes[table] = sizes.get(table, 0) + int(size)
        count = self.size.incidents
        self.figures["bytes of a stored incident"] = sizes["incidents"] / count
        self.figures["bytes of it in the roll-up"] = sizes["incidents_by_day"] / count

    def note_memory(self):
        self.figures["most memory of a shard, GB"] = max(
            shard.peak_memory() for shard in self.shards) / 1e9

    def everything(self):
        self.generate()
        self.load_in_order()
        self.note_memory()
        self.kill_loader()
        self.kill_shard()
        self.load_again()
        self.ask_everything()
        self.weigh()


def number(value):
    return f"{value:,.0f}".replace(",", " ") if value >= 1000 else f"{value:.3g}"


def is_met(name, value):
    goal, kind = GOALS[name]
    return value >= goal if kind == "at least" else value <= goal


def table(rows, most=LONGEST_ANSWER):
    """Rows as a table of the page."""
    names = list(rows[0])
    lines = ["| " + " | ".join(names) + " |", "|" + "---|" * len(names)]
    for row in rows[:most]:
        lines.append("| " + " | ".join(str(row[name]).replace("|", "\\|") for name in names) + " |")
    if len(rows) > most:
        lines.append(f"\n({len(rows) - most} more rows)")
    return "\n".join(lines)


def processor():
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        return next((line.split(":", 1)[1].strip() for line in file
                     if line.startswith("model name")), platform.machine())


def computed(run):
    """What a year of a billion incidents needs, from the figures of the run alone."""
    stored = run.figures["bytes of a stored incident"] + run.figures["bytes of it in the roll-up"]
    rate = run.figures["ready rows a second"]
    return [
        "## A billion incidents a year: computed, not tried", "",
        "| what | figure | from |", "|---|---|---|",
        f"| incidents a day | {number(YEARLY / 365)} | |",
        f"| disk for a year, one copy | {number(stored * YEARLY / 1e9)} GB | "
        f"{number(stored)} bytes an incident, roll-up included |",
        f"| loading a day's incidents | {number(YEARLY / 365 / rate)} s | "
        f"{number(rate)} rows a second |",
        f"| loading the year again | {number(YEARLY / rate / 3600)} h | the same |",
        f"| rows of a week's questions | {number(YEARLY / 52)} | a week's partitions alone |"]


def write_page(path, run, load_before):
    """The figures of a run: a page that holds nothing else, and two pictures beside it."""
    version = run.shards[0].sql("SELECT version()").strip()
    lines = ["<!-- Written by scripts/fleet. What the figures mean: docs/fleet.md -->",
             "# Figures: a fleet's incidents", "",
             f"- Run: {datetime.date.today()}, `scripts/fleet`: {number(run.size.incidents)} "
             f"incidents of seed {SEED}, of them {number(run.size.logs)} as log files of up to "
             f"{number(generate.DEVICES_WITH_LOGS)} devices: a run of the report tool for each",
             f"- Machine: {processor()}, {os.cpu_count()} cores, kernel {platform.release()}, "
             f"clickhouse-server {version}, two shards; load before the run {load_before:.1f}",
             "- Every answer was as the generator knows it, after two kills of the loader, one of a "
             "shard, and a second load. A question's time is that of the whole call of `fleet/ask`, "
             f"the median of {REPETITIONS}.", "",
             "## Goals", "", "| what | measured | goal | met |", "|---|---|---|---|"]
    for name, value in run.figures.items():
        if name in GOALS:
            goal, kind = GOALS[name]
            met = "yes" if is_met(name, value) else "**no**"
            lines.append(f"| {name} | {number(value)} | {kind} {number(goal)} | {met} |")
        else:
            lines.append(f"| {name} | {number(value)} | | |")
    lines += ["", *computed(run), "", "## Questions", "",
              "| question | time, s | rows |", "|---|---|---|"]
    for (name, values), (seconds, rows) in run.answers.items():
        lines.append(f"| `{name} {' '.join(values)}` | {seconds:.3f} | {len(rows)} |")
    shown = set()
    for (name, values), (_, rows) in run.answers.items():
        if name not in shown and not (name == "top" and "top=20" not in values):
            shown.add(name)
            lines += ["", f"### `{name} {' '.join(values)}`", "", table(rows)]
    plots.draw(run, os.path.dirname(path))
    lines += ["", "## Pictures", "",
              "![The most frequent hangs by day](fleet-top.svg)", "",
              "![A fix taking effect](fleet-fix.svg)", ""]
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(lines))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("report")
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--figures")
    options = parser.parse_args()
    load_before = os.getloadavg()[0]
    end_in_order()
    try:
        with tempfile.TemporaryDirectory(prefix="quorvel-fleet-") as directory:
            with Shards(f"{directory}/shards") as shards:
                run = Run(directory, shards, os.path.abspath(options.report),
                          SHORT if options.short else FULL)
                run.everything()
                for name, value in run.figures.items():
                    # Of a short run, numbers mean nothing.
                    missed = not options.short and name in GOALS and not is_met(name, value)
                    say(f"{name}: {number(value)}{' MISSED' if missed else ''}")
                if options.figures:
                    write_page(options.figures, run, load_before)
    except (RuntimeError, OSError, subprocess.SubprocessError) as error:
        sys.exit(f"fleet: {error}")
    except KeyboardInterrupt:
        sys.exit("fleet: ended on request; everything is stopped and removed")


if __name__ == "__main__":
    main()
