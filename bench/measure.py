#!/usr/bin/env python3
"""Runs every benchmark of a build and gathers the results in one JSON file.

    bench/measure.py BUILD_DIR RESULTS.json [--short]

What is compared is measured in turns within the run. --short takes a few seconds: it shows that
every benchmark still runs and answers as it should; its numbers mean nothing.
"""

import ctypes
import glob
import json
import os
import re
import subprocess
import sys
import tempfile
import threading
import time

from report_bench import measure_report

FRAMES = 25
INCIDENTS = 10
EU_STACK = ["eu-stack"]
GDB = ["gdb", "-nx", "-batch", "-ex", "thread apply all bt"]

SHORT = "--short" in sys.argv
REPETITIONS, MIN_TIME = (1, 0.002) if SHORT else (15, 0.1)
ROUNDS, THREAD_COUNTS = (1, (4,)) if SHORT else (7, (4, 32, 128))
IDLE_SECONDS, ARMED_TICKS = (1, 2) if SHORT else (60, 20)
PAIRS_A_ROUND = 20 if SHORT else 1500


def expect(condition, what):
    if not condition:
        sys.exit(f"bench: not as it should be: {what}")


class Monitor:
    """The library in this very process, and how often its monitor thread runs while nothing
    happens. The measuring waits nearly all of its time, in a thread beside the others."""

    def __init__(self, build):
        self.library = ctypes.CDLL(f"{build}/src/libquorvel.so")
        self.library.quorvel_init()
        self.result = {}
        self.thread = threading.Thread(target=self.measure, daemon=True)
        self.thread.start()

    def switches(self):
        """Context switches of the monitor thread so far, of either kind."""
        for task in glob.glob("/proc/self/task/*"):
            with open(f"{task}/status") as f:
                status = f.read()
            if status.startswith("Name:\tquorvel\n"):
                return sum(map(int, re.findall(r"voluntary_ctxt_switches:\t(\d+)", status)))
        raise LookupError("no monitor thread")

    def await_switches(self, count):
        while self.switches() < count:
            time.sleep(0.002)
        return time.monotonic()

    def measure(self):
        time.sleep(6)  # until it has stopped ticking
        before = self.switches()
        time.sleep(IDLE_SECONDS)
        idle = self.switches() - before
        watch = self.library["__quorvel_start_ex"](b"quiet", 60, None, None, 0)
        first = self.switches() + 2
        start = self.await_switches(first)
        taken = self.await_switches(first + ARMED_TICKS) - start
        self.library.quorvel_end(watch)
        self.result = {"idle_seconds": IDLE_SECONDS, "idle_switches": idle,
                       "wakeups_per_second": ARMED_TICKS / taken}


def google_benchmark(build, program):
    """Runs one program: {benchmark: [each repetition's nanoseconds]}, and all allocations."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        subprocess.run(
            [f"{build}/bench/{program}", f"--benchmark_min_time={MIN_TIME}",
             f"--benchmark_repetitions={REPETITIONS}", f"--benchmark_out={out.name}",
             "--benchmark_enable_random_interleaving=true"],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        runs = [r for r in json.load(out)["benchmarks"] if r["run_type"] == "iteration"]
    times = {}
    for run in runs:
        expect("error_occurred" not in run, f"{run['name']}: {run.get('error_message')}")
        name = re.sub(r"/(real_time|manual_time|iterations:\d+|repeats:\d+)", "", run["name"])
        times.setdefault(name, []).append(run["real_time"])
    return times, sum(run.get("allocations", 0) for run in runs)


def crowded_core(build):
    """{case: {rival: [each round's figures]}} of lock_bench; an empty list where the kernel refused
    a case."""
    lines = subprocess.check_output([f"{build}/bench/lock_bench", str(PAIRS_A_ROUND)], text=True,
                                    stderr=subprocess.DEVNULL).splitlines()
    cases = {}
    for line in map(json.loads, lines):
        expect(line.get("refused", True) is True, f"{line}")
        rounds = cases.setdefault(line["case"], {}).setdefault(line["rival"], [])
        if "p99" in line:
            rounds.append({key: line[key] for key in ("median", "p99")})
    return cases


class Target:
    """A running incident_bench. Its files lie in a device root of its own on tmpfs, its Android log
    goes to /dev/null."""

    def __init__(self, build, threads):
        self.threads = threads
        self.root = tempfile.TemporaryDirectory(dir="/dev/shm")
        for directory in ("data/log/reliability/quorvel", "data/log/dravik", "dev/__properties__"):
            os.makedirs(f"{self.root.name}/{directory}")
        with open(f"{self.root.name}/dev/__properties__/dravik.event.12.config", "w") as f:
            f.write("1")
        # The allocator's cache for each thread would count what has been freed as in use.
        environment = {**os.environ, "QUORVEL_HOST_ROOT": self.root.name,
                       "GLIBC_TUNABLES": "glibc.malloc.tcache_count=0"}
        self.process = subprocess.Popen(
            [f"{build}/bench/incident_bench", str(threads)], text=True, bufsize=1,
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
            env=environment)

    def incident(self):
        print(file=self.process.stdin)
        result = json.loads(self.process.stdout.readline())
        frames, parked = result["frames"], len(result["parked"])
        # A thread may just have been on its way back into its innermost call.
        expect(frames >= (FRAMES - 1) * self.threads and parked == self.threads,
               f"incident: {frames} frames, {parked} threads parked")
        return result

    def time_tool(self, command):
        """Wall time in microseconds of an outside tool that prints the stacks of this process."""
        with tempfile.TemporaryFile(mode="w+", dir=self.root.name) as output:
            start = time.monotonic()
            subprocess.run(command + ["-p", str(self.process.pid)], check=False,
                           stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.DEVNULL)
            taken = time.monotonic() - start
            output.seek(0)
            frames = len(re.findall(r"^#", output.read(), re.MULTILINE))
        expect(frames >= (FRAMES - 1) * self.threads, f"{command[0]}: {frames} frames")
        return taken * 1e6

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()
        self.root.cleanup()


def measure_incidents(build, threads):
    """Series of incidents, each series in a fresh process, and between its first two the tools."""
    result = {"series": [], "eu-stack": [], "gdb": []}
    for _ in range(ROUNDS):
        with Target(build, threads) as target:
            first = target.incident()
            result["eu-stack"].append(target.time_tool(EU_STACK))
            result["gdb"].append(target.time_tool(GDB))
            result["series"].append([first] + [target.incident() for _ in range(INCIDENTS - 1)])
    return result


def measure_ways_to_unwind(build):
    """Microseconds of each way's unwinds of one thread: {way: [each unwind's]}."""
    return json.loads(subprocess.check_output([f"{build}/bench/unwind_ways_bench", str(ROUNDS)]))


def library_size(build):
    with tempfile.NamedTemporaryFile() as stripped:
        subprocess.run(["strip", "-o", stripped.name, f"{build}/src/libquorvel.so"], check=True)
        sections = subprocess.check_output(["size", stripped.name], text=True)
        _, data, bss = map(int, sections.splitlines()[1].split()[:3])
        return {"stripped": os.path.getsize(stripped.name), "data": data, "bss": bss}


def main():
    build, results_path = sys.argv[1:3]
    os.environ.pop("DEBUGINFOD_URLS", None)  # the tools are not to ask the network for symbols
    results = {"load": os.getloadavg()[0], "frames": FRAMES}
    monitor = Monitor(build)
    results["watch"], _ = google_benchmark(build, "watch_bench")
    results["cpp"], _ = google_benchmark(build, "watch_hpp_bench")
    results["crowded"] = crowded_core(build)
    results["tick"], results["allocations"] = google_benchmark(build, "tick_bench")
    results["incidents"] = {count: measure_incidents(build, count) for count in THREAD_COUNTS}
    results["ways_to_unwind"] = measure_ways_to_unwind(build)
    results["library"] = library_size(build)
    results["report"] = measure_report(build, ROUNDS, SHORT)
    monitor.thread.join()
    expect(monitor.result, "the monitor thread cannot be seen, or does not tick")
    results["quiet"] = monitor.result
    with open(results_path, "w") as f:
        json.dump(results, f, indent=1)


if __name__ == "__main__":
    main()
