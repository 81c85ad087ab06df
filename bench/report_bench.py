"""Measures quorvel-report on logs made here, beside grep -c over the same files."""

import os
import random
import subprocess
import tempfile
import time

KERNEL = (("futex_do_wait", "futex_wait", "do_futex", "do_syscall_64"),
          ("ep_poll", "do_epoll_wait", "do_syscall_64"))
FRAMES = 18
FIRST_MS = 1795382028123
# {case: (logs, threads of each, different frames in each)}
CASES = {"10 logs of 500 threads": (10, 500, 2000),
         "one log of 100 MB, frames that repeat": (1, 50000, 1000),
         "one log of 100 MB, no two frames the same": (1, 46000, 10 ** 9),
         "10 000 logs of 50 threads": (10000, 50, 400)}
SHORT_CASES = {"10 logs of 500 threads": (10, 50, 2000)}


def log_lines(threads, different, choose):
    yield from ("Sun Nov 22 22:13:48 2026\n", "timeout tid: 1000\n", "timeout function: reload\n",
                "time start: Sun Nov 22 22:13:45 2026\n", "Build fingerprint: a/b\n",
                ">>> service <<<\n")
    for tid in range(1000, 1000 + threads):
        yield f"\nkernel stack tid = {tid}\n"
        yield from (f"[<0>] {function}+0x46/0x90\n" for function in choose.choice(KERNEL))
    for tid in range(1000, 1000 + threads):
        yield f"\ntid = {tid}\n"
        first = choose.randrange(different)
        for number in range(FRAMES):
            pc = (first * 31 + number * 7) % different
            yield (f"  #{number:02} pc {pc * 16:016x}  /system/lib64/libservice{pc % 7}.so "
                   f"(_ZN7android8internal8Service{pc % 10}7processERKNS_6StringEi+{pc})\n")


def run(command):
    """Seconds and the most memory, in MB, of one run. (The kernel counts this process's own memory
    in the child's, which is why no log is ever whole in it.)"""
    start = time.monotonic()
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    return time.monotonic() - start, usage.ru_maxrss * 1024 / 1e6, process.returncode


def measure_report(build, rounds, short):
    """{case: {"megabytes", "report": seconds each, "grep": seconds each, "memory": MB}}"""
    program = f"{build}/report/quorvel-report"
    results = {}
    for case, (logs, threads, different) in (SHORT_CASES if short else CASES).items():
        choose = random.Random(1)
        with tempfile.TemporaryDirectory() as directory:
            for number in range(logs):
                with open(f"{directory}/quorvel@{FIRST_MS + number}.log", "w",
                          encoding="ascii") as file:
                    file.writelines(log_lines(threads, different, choose))
            size = sum(entry.stat().st_size for entry in os.scandir(directory))
            result = {"megabytes": size / 1e6, "report": [], "grep": [], "memory": 0}
            for _ in range(rounds):
                seconds, memory, status = run([program, directory])
                if status != 0:
                    raise SystemExit(f"bench: quorvel-report ends with {status}")
                result["report"].append(seconds)
                result["memory"] = max(result["memory"], memory)
                result["grep"].append(run(["grep", "-rc", "^tid", directory])[0])
            results[case] = result
    return results
