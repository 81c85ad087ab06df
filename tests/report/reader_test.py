"""What the reader finds in whole, cut and foreign logs."""

from report_case import LOG, ReportTest
from sample_logs import SERVICE, header, kernel, user


class ReaderTest(ReportTest):
    def test_a_fact_is_lost(self):
        incident = self.read(header(utc_offset=3600) + kernel(100, "locks_lock_inode_wait")
                             + user(100, "libc:flock", "_Z4loadi")
                             + "Unwind failed: tid = 9: gone\nUnwind failed: tid = 8: \n")
        frame = {"pc": "0x30f0", "offset": "0x0", "map": "/usr/lib/x86_64-linux-gnu/libc.so.6",
                 "function": "flock", "function_offset": 45, "source": None, "inlined": []}
        own = {**frame, "pc": "0x3f60", "map": SERVICE, "function": "load(int)"}
        other = {"watched": False, "kernel": [], "user": []}
        self.assertEqual(incident, {
            "schema": 1, "file": LOG, "written": "2026-11-22T21:13:48.123Z",
            "utc_offset_seconds": 3600, "started": "2026-11-22T21:13:42Z", "armed_seconds": 3,
            "tid": 100, "watch": "transfer-money", "program": "bank_service",
            "fingerprint": "demo/demo/demo:12/1",
            "signature": "bank_service: transfer-money: file-lock: load",
            "signature_id": "1-c90be1b51d1681b7",
            "reason": {"kind": "file-lock", "text": "waits for a file lock, in flock"},
            "threads": [{"tid": 100, "watched": True, "kernel": ["locks_lock_inode_wait+0x64/0x90"],
                         "user": [frame, own], "failed": None},
                        {"tid": 8, "failed": "", **other}, {"tid": 9, "failed": "gone", **other}],
            "groups": [{"tids": [8, 9], "user": []},
                       {"tids": [100], "user": ["flock", "load(int)"]}],
            "labels": {}, "problems": []})

    def test_a_zone_is_guessed_from_an_impossible_difference(self):
        incident = self.read(header(), "quorvel@1795000000000.log")
        self.assertIsNone(incident["utc_offset_seconds"])
        self.assertEqual(len(incident["problems"]), 1)

    def test_a_zone_with_half_hours_or_west_of_greenwich_is_misread(self):
        for offset in (19800, -12600, 0, 50400, -43200):
            incident = self.read(header(ms=1795382029500, utc_offset=offset))
            self.assertEqual(incident["utc_offset_seconds"], offset)

    def test_a_frame_of_an_unusual_map_is_taken_apart_wrongly(self):
        for line, *parts in (
                ("0000000000001000  /a b/lib (1).so (f+12)", "0x0", "/a b/lib (1).so", "f", 12),
                ("0000000000001000  /jit (deleted) (f)", "0x0", "/jit (deleted)", "f", 0),
                ("0000000000001000  /old (deleted)", "0x0", "/old (deleted)", None, None),
                ("0000000000001000 (offset 0x2f000)  /x (f+1)", "0x2f000", "/x", "f", 1),
                ("00001000  <anonymous:7f00>", "0x0", "<anonymous:7f00>", None, None),
                ("0000000000001000  <unknown>", "0x0", "<unknown>", None, None),
                ("0000000000001000  /x (call(int) (x)+3)", "0x0", "/x", "call(int) (x)", 3),
                ("0000000000001000  /x (operator+)", "0x0", "/x", "operator+", 0)):
            (thread,) = self.read(f"{header()}\ntid = 100\n  #00 pc {line}\n")["threads"]
            (frame,) = thread["user"]
            self.assertEqual(list(frame.values())[1:5], parts)

    def test_sections_out_of_order_are_mixed_up(self):
        incident = self.read(header() + kernel(100, "do_wait") + kernel(7, "ep_poll")
                             + user(7, "loop") + user(100, "work"))
        self.assertEqual([(thread["kernel"][0], thread["user"][0]["function"])
                          for thread in incident["threads"]],
                         [("do_wait+0x64/0x90", "work"), ("ep_poll+0x64/0x90", "loop")])
        self.assertEqual(incident["problems"], [])

    def test_a_state_without_privilege_is_taken_for_a_kernel_stack(self):
        for state, frames, kind in (("S, wait channel futex_do_wait", ["futex_do_wait"], "futex"),
                                    ("T, wait channel not shown", [], "stopped")):
            incident = self.read(f"{header()}\nkernel stack tid = 100\n[no kernel stack: Operation "
                                 f"not permitted] state {state}\n")
            self.assertEqual(incident["threads"][0]["kernel"], frames)
            self.assertEqual(incident["reason"]["kind"], kind)

    def test_a_log_cut_anywhere_is_reported_as_something_else(self):
        text = (header() + kernel(100, "futex_wait", "do_futex") + kernel(101, "pipe_read")
                + user(100, "libc:flock", "work") + user(101, "libc:read")
                + "Unwind failed: tid = 12345: gone\n")
        whole = {thread["tid"]: thread for thread in self.read(text, "whole")["threads"]}
        lengths = range(text.index("tid: 100\n") + 9, len(text))
        for length in lengths:
            self.write(f"quorvel@cut{length:04}.log", text[:length])
        for length, cut in zip(lengths, self.lines("--json", "."), strict=True):
            self.assertEqual(bool(cut["problems"]), text[length - 1] != "\n", length)
            for thread in cut["threads"]:
                same = whole[thread["tid"]]
                self.assertEqual(thread["user"], same["user"][:len(thread["user"])], length)
                for frame, uncut in zip(thread["kernel"], same["kernel"]):
                    self.assertEqual(frame.split("/")[0], uncut.split("/")[0], length)

    def test_lines_of_the_program_hide_the_header(self):
        lines = "timeout tid: 5\ntimeout function: other\n>>> other <<<\n"
        self.write(LOG, "client: timeout tid: 5\n" + header() + lines + user(100, "work"))
        text = self.run_it(LOG).stdout
        self.assertIn('bank_service hung in "transfer-money" for 3 s\n', text)
        self.assertIn(", thread 100\n", text)
        self.assertEqual([line.strip() for line in text.splitlines()[-5:]],
                         ["Printed by the program", "client: timeout tid: 5", *lines.splitlines()])

    def test_garbage_between_sections_is_not_counted(self):
        incident = self.read(header() + kernel(100, "do_wait") + "\udcff\udcfe garbage\n"
                             + user(100, "work") + "not one\n" + "x" * 2000000
                             + "\n  #07 pc 0000000000001000  /x\n" + user(100, "again"))
        self.assertEqual(incident["problems"],
                         ["line 10: not a line of a kernel stack: \ufffd\ufffd garbage",
                          "line 14: not a frame: not one", "line 15: too long, left out",
                          "line 16: frame 7 where frame 1 belongs",
                          "line 18: a second section of thread 100, which is left out"])
        self.assertEqual(len(incident["threads"][0]["user"]), 2)
        self.assertIn("\n5 problems in this log\n", self.run_it(LOG).stdout)

    def test_hostile_names_reach_an_output(self):
        hostile = "<b>\x1b[31m\x07\x9b2J\udcff\udcc3(\udced\udca0\udc80\u202e\r\t\x7f"
        self.write(LOG, header(watch=hostile, program=hostile) + hostile
                   + f"\n\ntid = 100\n  #00 pc 0000000000001000  /lib{hostile} ({hostile}+1)\n")
        for output in ("--json", "--rows", "--folded", "--ndk", "--all"):
            text = self.run_it(output, LOG).stdout
            self.assertIn("<b>_[31m__2J__(_____ _".replace("_", "\ufffd"), text)
            self.assertNotRegex(text, "[^\n -~\ufffd]")

    def test_texts_of_an_incident_go_with_later_logs(self):
        more_than_are_stored_together = map(str, range(66000))
        for name, functions in (("1", ["first"]), ("2", more_than_are_stored_together),
                                ("3", ["next"])):
            self.write(name, header(watch=name) + user(100, *functions))
        text = self.run_it("1", "2", "3").stdout
        self.assertIn("\n  first+45  bank_service\n", text)
        self.assertIn("\n  next+45  bank_service\n", text)
