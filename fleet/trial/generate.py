"""A fleet's incidents from a seed, as log files and as rows, together with what is true of them.

Every hang is first written as real log files, which the report tool turns into rows: the million
rows of a run are those with another device, time, build and duration each. So their form is the
tool's own, and two hangs that it does not tell apart are found out."""

import collections
import csv
import datetime
import itertools
import json
import os
import random
import subprocess

FIRST_DAY = datetime.date(2026, 9, 14)
DAYS = 70
BUILDS = 8
BUILD_DAYS = 8
DEVICES = 50_000
HANGS = 144
VARIANTS = 4
DEVICES_WITH_LOGS = 3_000
DAY_MS = 86_400_000
ZONE_SECONDS = 3600  # the devices' local time, which the logs are written in
FIXED_HANG, FIXED_IN_BUILD = 3, 5
ROWS_A_WRITE = 20_000

PROGRAMS = ("audio_service", "battery_monitor", "camera_provider", "display_composer",
            "fingerprint_service", "location_engine", "media_codec", "modem_manager",
            "nfc_service", "power_service", "sensor_hub", "storage_daemon")
WATCHES = ("flush", "reload", "start-session", "suspend")
SUBJECTS = ("configuration", "session", "request", "surface", "stream", "cache", "calibration",
            "journal", "profile", "callback", "snapshot", "channel")
VERBS = ("commit", "acquire", "drain", "refresh", "publish", "restore", "rotate", "validate",
         "negotiate", "schedule", "attach", "release")
# How the watched thread waits: functions of the kernel and of the C library, innermost first; and
# the reason that the report tool must find.
WAITS = (
    (("futex_wait_queue", "futex_wait", "do_futex", "__x64_sys_futex"),
     ("__lll_lock_wait", "pthread_mutex_lock"), "mutex"),
    (("futex_wait_queue", "futex_wait", "do_futex", "__x64_sys_futex"),
     ("pthread_cond_wait",), "condition"),
    (("locks_lock_inode_wait", "__do_sys_flock"), ("flock",), "file-lock"),
    (("unix_stream_read_generic", "unix_stream_recvmsg", "__sys_recvfrom"), ("recv",), "socket"),
    (("pipe_read", "vfs_read", "ksys_read"), ("read",), "pipe"),
    (("jbd2_log_wait_commit", "ext4_sync_file", "do_fsync"), ("fsync",), "disk"),
    (("do_sys_poll", "__x64_sys_poll"), ("poll",), "poll"),
    (("do_wait", "kernel_wait4"), ("waitpid",), "child"),
)
# Frames further out: a variant of a hang has more or fewer of them.
CALLERS = ("handle_incoming_message", "run_pending_task", "process_request_queue",
           "dispatch_service_event", "deliver_to_listeners", "with_permission_check",
           "traced_invocation", "invoke_registered_handler", "decode_and_forward",
           "event_loop_iteration", "drain_event_sources", "run_event_loop", "service_main_loop",
           "guarded_thread_body", "worker_thread_entry")

Hang = collections.namedtuple("Hang", "program watch wait frames weight first last armed")
Incident = collections.namedtuple("Incident", "ms armed hang variant build device")


def fingerprint(build):
    return f"demo/fleet/fleet:12/DEMO.{build + 1}/{4000 + 37 * build}:user/release-keys"


def first_day_of(build):
    """The day, counted from the first, on which devices begin to run a build."""
    return build * BUILD_DAYS


def device_name(number):
    return f"device-{number:05d}"


def day_of(number):
    return FIRST_DAY + datetime.timedelta(days=number)


def start_ms():
    return int(datetime.datetime.combine(
        FIRST_DAY, datetime.time(), datetime.timezone.utc).timestamp()) * 1000


def active_devices():
    """{(day, build): devices}: each build spreads over eight days and replaces those before."""
    counts = {}
    for day in range(DAYS):
        left = DEVICES
        for build in reversed(range(BUILDS)):
            age = day - first_day_of(build)
            share = min(1.0, 0.08 + 0.11 * age) if age >= 0 else 0.0
            devices = int(left * share) if build else left
            left -= devices
            if devices:
                counts[day, build] = devices
    return counts


def make_hangs(chance):
    """Hangs of every program: some that always were, some that began in a build or were fixed."""
    names = [f"{verb}_{subject}" for verb in VERBS for subject in SUBJECTS]
    chance.shuffle(names)
    hangs = []
    for number in range(HANGS):
        first, last = 0, BUILDS - 1
        if number % 5 == 1:
            first = chance.randrange(1, BUILDS)
        if number % 7 == 3:
            last = chance.randrange(first, BUILDS - 1) if first < BUILDS - 1 else last
        if number == FIXED_HANG:
            first, last = 0, FIXED_IN_BUILD - 1
        hangs.append(Hang(
            PROGRAMS[number % len(PROGRAMS)], WATCHES[number // len(PROGRAMS) % len(WATCHES)],
            WAITS[chance.randrange(len(WAITS))],
            (names[number], names[(number + 1) % len(names)]),
            1.0 / (number + 4), first, last, chance.choice((1, 2, 3, 5, 10, 30))))
    return hangs


class Fleet:
    """Incidents of a seed. The first `logs` of them exist as files alone, the others as rows
    alone."""

    def __init__(self, seed, count, logs):
        chance = random.Random(seed)
        self.active = active_devices()
        self.hangs = make_hangs(chance)
        self.logs = logs
        self.incidents = self._draw(chance, count)
        self.signatures = {}
        self.reasons = [hang.wait[2] for hang in self.hangs]

    def _draw(self, chance, count):
        cells = list(self.active)
        weights = [self.active[cell] for cell in cells]
        alive = []
        for build in range(BUILDS):
            numbers = [number for number, hang in enumerate(self.hangs)
                       if hang.first <= build <= hang.last]
            alive.append((numbers, list(itertools.accumulate(
                self.hangs[number].weight for number in numbers))))
        hour_weights = list(itertools.accumulate([2, 1, 1, 5] + [2] * 3 + [4] * 12 + [6] * 5))
        start = start_ms()
        incidents = []
        for number, (day, build) in enumerate(chance.choices(cells, weights, k=count)):
            numbers, sums = alive[build]
            hang = chance.choices(numbers, cum_weights=sums)[0]
            hour = chance.choices(range(24), cum_weights=hour_weights)[0]
            devices = DEVICES_WITH_LOGS if number < self.logs else DEVICES
            incidents.append(Incident(
                start + day * DAY_MS + hour * 3_600_000 + int(chance.random() * 3_600_000),
                self.hangs[hang].armed + int(chance.random() * 2), hang,
                int(chance.random() * VARIANTS), build, int(chance.random() * devices)))
        return incidents

    def write_active(self, path):
        """The platform's counts, as the loader reads them."""
        with open(path, "w", encoding="utf-8", newline="") as file:
            writer = csv.writer(file)
            writer.writerow(("day", "fingerprint", "devices"))
            for (day, build), devices in self.active.items():
                writer.writerow((day_of(day), fingerprint(build), devices))

    def write_logs(self, directory):
        """The first incidents, one directory a device; returns the size of all files."""
        size = 0
        for incident in self.incidents[:self.logs]:
            size += self.write_log(f"{directory}/{device_name(incident.device)}", incident)
        return size

    def write_log(self, directory, incident):
        os.makedirs(directory, exist_ok=True)
        text = log_text(self.hangs[incident.hang], incident)
        with open(f"{directory}/quorvel@{incident.ms}.log", "x", encoding="utf-8") as file:
            file.write(text)
        return len(text)

    def templates(self, report, directory):
        """{(hang, variant): a row as bytes with %-fields}, made by the report tool; notes each
        hang's signature."""
        for hang, variant in itertools.product(range(HANGS), range(VARIANTS)):
            self.write_log(directory, Incident(
                start_ms() + hang * VARIANTS + variant, self.hangs[hang].armed, hang, variant, 0, 0))
        output = subprocess.run([report, "--rows", "--label", "device=DEVICE", directory],
                                stdout=subprocess.PIPE, check=True).stdout
        templates = {}
        for line in output.splitlines():
            row = json.loads(line)
            hang, variant = divmod(row["written_ms"] - start_ms(), VARIANTS)
            known = self.signatures.setdefault(hang, row["signature_id"])
            if known != row["signature_id"]:
                raise RuntimeError(f"one hang has two signatures: {row['signature']}")
            templates[hang, variant] = template_of(row)
        if len(templates) != HANGS * VARIANTS or len(set(self.signatures.values())) != HANGS:
            raise RuntimeError("two hangs have one signature, or a log was not read")
        return templates

    def write_rows(self, path, templates, first, last):
        """A piece of the incidents as rows."""
        prints = [fingerprint(build).encode() for build in range(BUILDS)]
        with open(path, "wb") as file:
            lines = []
            for incident in self.incidents[first:last]:
                device = device_name(incident.device).encode()
                lines.append(templates[incident.hang, incident.variant] % {
                    b"ms": incident.ms, b"armed": incident.armed, b"device": device,
                    b"build": prints[incident.build], b"threads": 8 + incident.ms % 57})
                if len(lines) == ROWS_A_WRITE:
                    file.writelines(lines)
                    lines = []
            file.writelines(lines)


def template_of(row):
    """A row of the tool as bytes, with fields for what differs between incidents."""
    marks = {"written_ms": 111_111_111, "armed_seconds": 222_222_222, "threads": 333_333_333}
    row = dict(row, **marks, file="@DEVICE@/quorvel@@MS@.log", fingerprint="@BUILD@",
               label_values=["@DEVICE@"])
    text = json.dumps(row, separators=(",", ":"), ensure_ascii=False).replace("%", "%%")
    for mark, field in (("111111111", "%(ms)d"), ("222222222", "%(armed)d"),
                        ("333333333", "%(threads)d"), ("@DEVICE@", "%(device)s"),
                        ("@MS@", "%(ms)d"), ("@BUILD@", "%(build)s")):
        text = text.replace(mark, field)
    return text.encode() + b"\n"


def _ctime(seconds):
    moment = datetime.datetime.fromtimestamp(seconds + ZONE_SECONDS, datetime.timezone.utc)
    return moment.strftime("%a %b %e %H:%M:%S %Y")


def _user_stack(functions, program, tid):
    lines = [f"\ntid = {tid}"]
    for number, (function, own) in enumerate(functions):
        module = f"/system/bin/{program}" if own else "/usr/lib/x86_64-linux-gnu/libc.so.6"
        lines.append(f"  #{number:02d} pc {0x1000 + 64 * number:016x}  {module} ({function}+{5 + number})")
    return lines


def log_text(hang, incident):
    """A log as the library writes it: the watched thread and two that wait for work."""
    written = incident.ms // 1000
    tid = 1000 + incident.ms % 30000
    kernel, libc, _ = hang.wait
    callers = CALLERS[:8 + 2 * incident.variant]
    watched = ([(name, False) for name in libc] + [(name, True) for name in hang.frames + callers]
               + [("start_thread", False)])
    idle = [("pthread_cond_wait", False), ("await_work", True), ("start_thread", False)]
    lines = [_ctime(written), f"timeout tid: {tid}", f"timeout function: {hang.watch}",
             f"time start: {_ctime(written - incident.armed)}",
             f"Build fingerprint: {fingerprint(incident.build)}", f">>> {hang.program} <<<"]
    for number in range(3):
        lines.append(f"\nkernel stack tid = {tid + number}")
        functions = kernel if number == 0 else WAITS[1][0]
        lines += [f"[<0>] {name}+0x{82 + number:x}/0x180" for name in functions]
    lines += _user_stack(watched, hang.program, tid)
    for number in (1, 2):
        lines += _user_stack(idle, hang.program, tid + number)
    return "\n".join(lines) + "\n"
