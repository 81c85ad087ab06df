"""The answers to every question, computed from the generator's incidents and not by the store."""

import collections
import datetime

import generate

SHORT_SECONDS = 2


class Truth:
    """Each method answers the question of its name, with the question's own parameters."""

    def __init__(self, fleet):
        self.fleet = fleet
        self.start = generate.start_ms()

    def _of_period(self, values):
        first, last = (
            (datetime.date.fromisoformat(values[name]) - generate.FIRST_DAY).days
            for name in ("from", "to"))
        begin = self.start + first * generate.DAY_MS
        end = self.start + (last + 1) * generate.DAY_MS
        return [one for one in self.fleet.incidents if begin <= one.ms < end]

    def _hang_of(self, signature):
        return next(number for number, known in self.fleet.signatures.items()
                    if known == signature)

    @staticmethod
    def _per_thousand(count, of):
        return 1000 * count / of if of else 0

    def top(self, values):
        groups = collections.defaultdict(list)
        for one in self._of_period(values):
            groups[one.hang].append(one)
        days = [generate.day_of(day).isoformat() for day, _ in self.fleet.active]
        inside = [day for day in days if values["from"] <= day <= values["to"]]
        active = sum(count for day, count in zip(days, self.fleet.active.values())
                     if values["from"] <= day <= values["to"]) / len(set(inside))
        rows = []
        for number, group in groups.items():
            hang = self.fleet.hangs[number]
            devices = len({one.device for one in group})
            rows.append({
                "signature_id": self.fleet.signatures[number], "program": hang.program,
                "watch": hang.watch, "incidents": len(group), "devices": devices,
                "devices_per_thousand": self._per_thousand(devices, active),
                "first_seen": _time(min(one.ms for one in group)),
                "last_seen": _time(max(one.ms for one in group))})
        rows.sort(key=lambda row: (-row["incidents"], row["signature_id"]))
        return rows[:int(values["top"])]

    def _by_hang_and_build(self):
        days = collections.defaultdict(list)
        for one in self.fleet.incidents:
            days[one.hang, one.build].append((one.ms - self.start) // generate.DAY_MS)
        return days

    def _build_of(self, values):
        return next(build for build in range(generate.BUILDS)
                    if generate.fingerprint(build) == values["build"])

    def new(self, values):
        build = self._build_of(values)
        days = self._by_hang_and_build()
        rows = []
        for number, hang in enumerate(self.fleet.hangs):
            if any((number, before) in days for before in range(build)):
                continue
            own = days.get((number, build))
            if own:
                rows.append({
                    "signature_id": self.fleet.signatures[number], "program": hang.program,
                    "incidents": len(own), "first_seen": str(generate.day_of(min(own))),
                    "last_seen": str(generate.day_of(max(own)))})
        rows.sort(key=lambda row: (-row["incidents"], row["signature_id"]))
        return rows[:int(values["top"])]

    def gone(self, values):
        build = self._build_of(values)
        days = self._by_hang_and_build()
        since = sum(count for (_, one), count in self.fleet.active.items() if one >= build)
        before = sum(self.fleet.active.values()) - since
        rows = []
        for number, hang in enumerate(self.fleet.hangs):
            if any((number, later) in days for later in range(build, generate.BUILDS)):
                continue
            seen = [day for one in range(build) for day in days.get((number, one), ())]
            if seen:
                rows.append({
                    "signature_id": self.fleet.signatures[number], "program": hang.program,
                    "incidents_before": len(seen), "expected": len(seen) * since / before,
                    "last_seen": str(generate.day_of(max(seen)))})
        rows.sort(key=lambda row: (-row["incidents_before"], row["signature_id"]))
        return rows[:int(values["top"])]

    def by_hour(self, values):
        groups = collections.defaultdict(list)
        for one in self._of_period(values):
            groups[one.ms // 3_600_000 % 24].append(one.device)
        return [{"hour": hour, "incidents": len(devices), "devices": len(set(devices))}
                for hour, devices in sorted(groups.items())]

    def by_day(self, values):
        hang = self._hang_of(values["signature"])
        counts = collections.Counter((one.ms - self.start) // generate.DAY_MS
                                     for one in self._of_period(values) if one.hang == hang)
        active = collections.Counter()
        for (day, _), devices in self.fleet.active.items():
            if values["from"] <= str(generate.day_of(day)) <= values["to"]:
                active[day] += devices
        return [{"day": str(generate.day_of(day)), "incidents": counts[day],
                 "active_devices": devices,
                 "per_thousand": self._per_thousand(counts[day], devices)}
                for day, devices in sorted(active.items())]

    def spread(self, values):
        hang = self._hang_of(values["signature"])
        groups = collections.defaultdict(list)
        for one in self.fleet.incidents:
            if one.hang == hang:
                groups[one.build].append(one)
        rows = []
        for build, group in groups.items():
            days = sum(count for (_, one), count in self.fleet.active.items() if one == build)
            rows.append({
                "fingerprint": generate.fingerprint(build),
                "program": self.fleet.hangs[hang].program, "incidents": len(group),
                "devices": len({one.device for one in group}), "device_days": days,
                "per_thousand": self._per_thousand(len(group), days)})
        return sorted(rows, key=lambda row: (-row["incidents"], row["fingerprint"]))

    def incidents(self, values):
        hang = self._hang_of(values["signature"])
        behind = [one for one in self._of_period(values) if one.hang == hang]
        behind.sort(key=lambda one: (-one.ms, generate.device_name(one.device)))
        return [{"time": _time(one.ms), "device": generate.device_name(one.device),
                 "armed_seconds": one.armed, "fingerprint": generate.fingerprint(one.build),
                 "file": f"{generate.device_name(one.device)}/quorvel@{one.ms}.log"}
                for one in behind[:int(values["top"])]]

    def reasons(self, values):
        groups = collections.defaultdict(list)
        for one in self._of_period(values):
            groups[self.fleet.hangs[one.hang].program, self.fleet.reasons[one.hang]].append(one)
        rows = [{"program": program, "reason": reason, "incidents": len(group),
                 "devices": len({one.device for one in group}),
                 "hangs": len({one.hang for one in group})}
                for (program, reason), group in groups.items()]
        return sorted(rows, key=lambda row: (row["program"], -row["incidents"], row["reason"]))

    def short(self, values):
        groups = collections.defaultdict(list)
        for one in self._of_period(values):
            hang = self.fleet.hangs[one.hang]
            groups[hang.program, hang.watch].append(one)
        rows = []
        for (program, watch), group in groups.items():
            short = [one for one in group if one.armed <= SHORT_SECONDS]
            if short:
                rows.append({"program": program, "watch": watch, "incidents": len(short),
                             "devices": len({one.device for one in short}),
                             "incidents_of_any_length": len(group)})
        return sorted(rows, key=lambda row: (-row["incidents"], row["program"], row["watch"]))


def _time(ms):
    moment = datetime.datetime.fromtimestamp(ms // 1000, datetime.timezone.utc)
    return moment.strftime("%Y-%m-%d %H:%M:%S")


def difference(expected, answered):
    """The first thing that an answer has wrong, or None. Rounded numbers may differ by half of
    their last digit."""
    if len(expected) != len(answered):
        return f"{len(answered)} rows in place of {len(expected)}"
    for number, (right, given) in enumerate(zip(expected, answered), 1):
        for name, value in right.items():
            other = given[name]
            near = (abs(value - other) <= (0.0501 if name == "expected" else 0.000501)
                    if isinstance(value, float) else value == other)
            if not near:
                return f"row {number}: {name} is {other!r} in place of {value!r}"
    return None
