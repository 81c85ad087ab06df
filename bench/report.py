#!/usr/bin/env python3
"""Writes performance.md and its pictures from the results of bench/measure.py.

    bench/report.py RESULTS.json FIGURES_DIR

The page holds figures alone; docs/performance.md says in words what they mean. A new section is a
method of Report that returns Markdown, and its line in SECTIONS; a new goal is a call of goal().
"""

import datetime
import json
import os
import platform
import subprocess
import sys
from statistics import median, quantiles

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt  # noqa: E402

WORKS = {"start_end": "start + end", "start_update_end": "start + update + end"}
RIVALS = {"quorvel": "quorvel", "libevent": "libevent timer", "timerfd": "timerfd",
          "posix_timer": "POSIX timer"}
COMPARED = ("quorvel", "libevent")  # which share a lock among threads, as a timerfd does not
CROWDED = {"slack 50 us": "shared core, timer slack 50 µs",
           "slack 50 ms": "shared core, timer slack 50 ms",
           "SCHED_FIFO": "`SCHED_FIFO` thread against a preempted ordinary one"}
DUMPS = {"first": "quorvel, first dump", "later": "quorvel, later dumps", "eu-stack": "eu-stack",
         "gdb": "gdb"}
THREADS = (1, 2, 4, 8)
COLOURS = ("#0b6e4f", "#e08e1b", "#5b6c8f", "#a23b3b")

plt.rcParams.update({"svg.hashsalt": "quorvel", "svg.fonttype": "none", "axes.spines.top": False,
                     "axes.spines.right": False, "axes.grid": True, "grid.alpha": 0.3})


def table(header, *rows):
    lines = [header, ["---"] * len(header), *rows]
    return "\n".join("| " + " | ".join(map(str, line)) + " |" for line in lines) + "\n"


def ms(microseconds):
    return f"{microseconds / 1000:.{1 if microseconds >= 1e4 else 2}f} ms"


def both(series, values):
    """What a function gives for the first incident of each series, and for the later ones."""
    return {"first": [v for incidents in series for v in values(incidents[0])],
            "later": [v for incidents in series for i in incidents[1:] for v in values(i)]}


class Report:
    def __init__(self, results, directory):
        self.results = results
        self.directory = directory
        self.goals = []

    def goal(self, work, measured, sign, goal, unit=""):
        met = measured <= goal if sign == "≤" else measured >= goal
        self.goals.append([work, f"{round(measured, 2):g}{unit}", f"{sign} {goal}{unit}",
                           "yes" if met else "**no**"])

    def unmeasured(self, work, goal):
        self.goals.append([work, "not measured", goal, "**no**"])

    def watch(self):
        page = "![Cost by number of threads](performance-watch.svg)\n\n"
        times = {name: median(runs) for name, runs in self.results["watch"].items()}
        for work, title in WORKS.items():
            rows = []
            for n in THREADS:
                own, *rivals = (times[f"{work}/{rival}/threads:{n}"] for rival in RIVALS)
                rows.append([n, f"**{own:.0f} ns**"] +
                            [f"{rival:.0f} ns ({rival / own:.1f} ×)" for rival in rivals])
            page += table([f"{title}: threads", *RIVALS.values()], *rows) + "\n"
        own, libevent = (times[f"start_end/{rival}/threads:1"] for rival in COMPARED)
        bare = times["locks_and_counters_alone"]
        self.goal("start + end, 1 thread, over libevent", own / libevent, "≤", 1.4, " ×")
        self.goal("start + end, 1 thread, over its lock and counter operations alone", own / bare,
                  "≤", 1.25, " ×")
        rows = []
        for n in THREADS[1:]:
            own, libevent = (times[f"work/{rival}/threads:{n}"] for rival in COMPARED)
            rows.append([n, f"**{own:.0f} ns**", f"{libevent:.0f} ns ({libevent / own:.2f} ×)"])
            self.goal(f"start + end and 1.5 µs of work, {n} threads, over libevent",
                      own / libevent, "≤", 1.2, " ×")
        page += table(["start + end and 1.5 µs of work: threads",
                       *(RIVALS[rival] for rival in COMPARED)], *rows) + "\n"
        page += f"The lock and counter operations of a pair alone, one thread: {bare:.0f} ns\n\n"
        page += self.cpp_header() + "\n"
        page += self.crowded_core()
        self.goal("start + end with 127 other watches armed, over an empty registry",
                  times["start_end_127_armed/quorvel"] / times["start_end/quorvel/threads:1"],
                  "≤", 1.1, " ×")
        tick = {name: median(runs) for name, runs in self.results["tick"].items()}
        self.goal("start + end while a full slot is emptied about 1000 times a second, over an "
                  "empty registry", tick["start_end/127"] / tick["start_end/0"],
                  "≤", 1.1, " ×")
        self.goal("one tick, 128 watches in the slot", tick["tick/128"] / 1000, "≤", 20, " µs")
        self.goal("one tick, empty slot", tick["tick/0"] / 1000, "≤", 20, " µs")
        self.goal("allocations in all ticks", self.results["allocations"], "≤", 0)
        quiet = self.results["quiet"]
        self.goal(f"idle: context switches of the monitor in {quiet['idle_seconds']} s",
                  quiet["idle_switches"], "≤", 0)
        self.goal("armed and quiet: wake-ups a second", quiet["wakeups_per_second"], "≤", 1.01)
        self.watch_plot()
        return page

    def cpp_header(self):
        """The same pair through the C++ headers."""
        titles = {"c_calls": "the two calls of C", "watch": "`quorvel::Watch`",
                  "watch_with_callable": "`quorvel::Watch` with a small callable",
                  "measured_watch": "`quorvel::MeasuredWatch`"}
        times = {name: median(self.results["cpp"][name]) for name in titles}
        self.goal("start + end by quorvel::Watch without a callable, over the calls of C",
                  times["watch"] / times["c_calls"], "≤", 1.05, " ×")
        rows = [[title, f"{times[name]:.0f} ns"] for name, title in titles.items()]
        return table(["start + end, one thread", "time"], *rows)

    def crowded_core(self):
        """A pair a millisecond beside a thread that starts and ends in a loop on the same core."""
        rows = []
        for case, title in CROWDED.items():
            rounds = self.results["crowded"][case]
            if not rounds["quorvel"]:
                rows.append([title] + ["not permitted here"] * 4)
                self.unmeasured(f"{title}: 99th percentile, over libevent", "≤ 1.0 ×")
                continue
            figures = [[median(r[key] for r in rounds[rival]) for key in ("median", "p99")]
                       for rival in COMPARED]
            rows.append([title] + [f"{value / 1000:.2f} µs" for pair in figures for value in pair])
            self.goal(f"{title}: 99th percentile, over libevent", figures[0][1] / figures[1][1],
                      "≤", 1.0, " ×")
        return table(["start + end on a crowded core", "quorvel, median", "99th percentile",
                      "libevent timer, median", "99th percentile"], *rows)

    def watch_plot(self):
        figure, axes = plt.subplots(1, 2, figsize=(9, 3.6), sharey=True)
        for axis, (work, title) in zip(axes, WORKS.items()):
            for rival, colour in zip(RIVALS, COLOURS):
                quarters = [quantiles(self.results["watch"][f"{work}/{rival}/threads:{n}"])
                            for n in THREADS]
                low, middle, high = zip(*quarters)
                spread = [[m - l for m, l in zip(middle, low)],
                          [h - m for h, m in zip(high, middle)]]
                axis.errorbar(range(len(THREADS)), middle, spread, marker="o", capsize=3,
                              label=RIVALS[rival], color=colour)
            axis.set(title=title, xlabel="threads", yscale="log", xticks=range(len(THREADS)),
                     xticklabels=THREADS)
        axes[0].set_ylabel("ns")
        self.save(figure, axes[1], "watch")

    def dumps(self, count):
        """Microseconds that whole dumps took: our first ones, our later ones, the tools'."""
        measured = self.results["incidents"][count]
        return {**both(measured["series"], lambda incident: [incident["parts"]["user stacks"]]),
                "eu-stack": measured["eu-stack"], "gdb": measured["gdb"]}

    def stacks(self):
        dumps, parked = [], []
        for count, measured in self.results["incidents"].items():
            first, later, *tools = map(median, self.dumps(count).values())
            dumps.append([count, f"**{ms(first)}**", ms(later)] +
                         [f"{ms(tool)} ({tool / first:.1f} ×)" for tool in tools])
            for tool, taken, goal in zip(("eu-stack", "gdb"), tools, (5, 20)):
                case = f"stacks of {count} threads, {tool} over it"
                self.goal(case, taken / first, "≥", goal, " ×")
            parked.append([count] + [f"{value:.0f} µs" for times in
                                     both(measured["series"], lambda i: i["parked"]).values()
                                     for value in (median(times), quantiles(times, n=100)[98])])
        self.stacks_plot()
        return ("![Time of a whole dump](performance-stacks.svg)\n\n" +
                table([f"threads of {self.results['frames']} frames", *DUMPS.values()], *dumps) +
                "\n" +
                table(["a thread is stopped: threads", "first dump: median", "99th percentile", "later: median",
                       "99th percentile"], *parked))

    def stacks_plot(self):
        figure, axis = plt.subplots(figsize=(7, 3.6))
        dumps = [self.dumps(count) for count in self.results["incidents"]]
        for i, (key, colour) in enumerate(zip(DUMPS, ("#0b6e4f", "#7fb7a3", *COLOURS[1:]))):
            axis.bar([x + (i - 1.5) * 0.2 for x in range(len(dumps))],
                     [median(dump[key]) / 1000 for dump in dumps], 0.19, label=DUMPS[key],
                     color=colour, zorder=2)
        axis.set(yscale="log", ylabel="ms", xticks=range(len(dumps)),
                 xticklabels=[f"{count} threads" for count in self.results["incidents"]])
        self.save(figure, axis, "stacks")

    def incident(self):
        series = list(self.results["incidents"].values())[-1]["series"]

        def row(name, value):
            return [name] + [ms(median(v)) for v in both(series, lambda i: [value(i)]).values()]

        def heap(n):
            return median(s[n - 1]["heap"] - s[0]["heap_at_start"] for s in series)
        self.goal("heap in use after incident 10, less that after incident 2", heap(10) - heap(2),
                  "≤", 0, " bytes")
        library = self.results["library"]
        return (table(["part", "first incident", "later"],
                      *[row(part, lambda i, part=part: i["parts"][part])
                        for part in series[0][0]["parts"]],
                      row("header and messages", lambda i: i["taken"] - sum(i["parts"].values())),
                      row("**whole incident**", lambda i: i["taken"])) + "\n" +
                table(["memory", "bytes"],
                      ["`libquorvel.so`, stripped", library["stripped"]],
                      ["its static memory, initialised", library["data"]],
                      ["its static memory, zero at load", library["bss"]],
                      *[[f"heap in use after incident {n}, over that before the first",
                         f"{heap(n):.0f}"] for n in (1, 2, 3, 10)]))

    def ways_to_unwind(self):
        rows = [[way, f"{median(times):.0f} µs", f"{quantiles(times, n=100)[98]:.0f} µs"]
                for way, times in self.results["ways_to_unwind"].items()]
        return table([f"one thread of {self.results['frames']} frames", "median",
                      "99th percentile"], *rows)

    def quorvel_report(self):
        rows = []
        for case, measured in self.results["report"].items():
            seconds, grep = median(measured["report"]), median(measured["grep"])
            speed = measured["megabytes"] / seconds
            rows.append([case, f"{measured['megabytes']:.0f} MB", f"**{seconds:.2f} s**",
                         f"{speed:.0f} MB/s", f"{measured['memory']:.0f} MB", f"{grep:.2f} s"])
            if "10 logs" in case:
                self.goal(f"`quorvel-report`, {case}", seconds, "≤", 1, " s")
            elif "one log" in case:
                self.goal(f"`quorvel-report`, {case}", seconds, "≤", 10, " s")
                self.goal(f"memory of `quorvel-report`, {case}", measured["memory"], "≤", 1000,
                          " MB")
            else:
                self.goal(f"`quorvel-report`, {case}", speed, "≥", 100, " MB/s")
        return table(["`quorvel-report`, the text", "size", "time", "speed", "memory",
                      "`grep -c` over the same files"], *rows)

    def save(self, figure, axis, name):
        axis.legend(loc="center left", bbox_to_anchor=(1, 0.5), frameon=False)
        figure.tight_layout()
        figure.savefig(f"{self.directory}/performance-{name}.svg", metadata={"Date": None})

    def machine(self):
        with open("/proc/cpuinfo") as f:
            model = next(line.split(":")[1].strip() for line in f if line.startswith("model name"))
        versions = subprocess.check_output(
            ["dpkg-query", "-W", "-f", "${Package} ${Version}, ", "libevent-dev", "elfutils",
             "gdb"], text=True)
        return (f"{model}, {os.cpu_count()} cores, kernel {platform.release()}, "
                f"glibc {platform.libc_ver()[1]}, {versions}load before the run "
                f"{self.results['load']:.1f}")


SECTIONS = {
    "A watch": Report.watch,
    "The stacks of all threads": Report.stacks,
    "A whole incident": Report.incident,
    "Ways to unwind": Report.ways_to_unwind,
    "Reading logs": Report.quorvel_report,
}

HEAD = """<!-- Written by scripts/bench. What the figures mean: docs/performance.md -->
# Figures: performance

- Run: {date}, `scripts/bench`
- Machine: {machine}
- Medians; what is compared was measured in turns, within the one run.
"""


def main():
    results_path, directory = sys.argv[1:]
    with open(results_path) as f:
        report = Report(json.load(f), directory)
    sections = {title: write(report) for title, write in SECTIONS.items()}
    goals = table(["work", "measured", "goal", "met"], *report.goals)
    with open(f"{directory}/performance.md", "w") as f:
        f.write(HEAD.format(date=datetime.date.today(), machine=report.machine()))
        for title, text in {"Goals": goals, **sections}.items():
            f.write(f"\n## {title}\n\n{text}")


if __name__ == "__main__":
    main()
