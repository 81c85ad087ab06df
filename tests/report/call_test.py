"""The program as it is called: options, outputs, exit statuses."""

import functools
import os
import resource

from report_case import LOG, ReportTest
from sample_logs import LIBC, SERVICE, header, kernel, user


def text_of(tid, watch):
    return (header(tid, watch, "service", utc_offset=3600) + kernel(tid, "locks_lock_inode_wait")
            + kernel(7, "ep_poll") + user(tid, "libc:flock", "_ZN6Config4loadEi")
            + "  #02 pc 000000000000242d (offset 0x1000)  /vendor/a;b.apk\n")


class CallTest(ReportTest):
    def setUp(self):
        super().setUp()
        self.page = self.dir / "page.html"
        (self.dir / "below").mkdir()
        for i, (where, watch) in enumerate(((".", "load"), (".", "load"), ("below", "save"))):
            self.write(f"{where}/quorvel@{1795382028123 + i * 60000}.log", text_of(100 + i, watch))

    def test_a_wrong_call_is_taken_for_work(self):
        for call in ([], ["--no-such", "x"], ["--json", "--rows", "x"], ["--label", "x", "y"],
                     ["--color", "red", "x"], ["--top", "-1", "x"]):
            done = self.run_it(*call, status=2)
            self.assertTrue(done.stderr)
            self.assertFalse(done.stdout)
        self.assertIn("--folded", self.run_it("--help").stdout)
        self.assertIn("quorvel-report", self.run_it("--version").stdout)

    def test_one_bad_log_hides_the_others_or_shows_those_below(self):
        for name, text in (("words", "hello\ntid = 4\n"), ("empty", ""), ("zeros", "\0" * 300000)):
            self.write(f"quorvel@{name}.log", text)
        done = self.run_it("--json", ".", "gone", status=1)
        self.assertEqual(len(done.stdout.splitlines()), 2)
        for place in ("words.log:2", "empty.log:0", "zeros.log:1"):
            self.assertIn(f'{place}: no "timeout tid:" line up to here', done.stderr)
        self.assertIn("gone:0: cannot open: No such file", done.stderr)

    def test_standard_input_has_another_name_or_zone(self):
        (incident,) = self.lines("--json", "-", input=text_of(5, "w"))
        facts = [incident[key] for key in ("file", "written", "started", "utc_offset_seconds")]
        self.assertEqual(facts, ["-", "2026-11-22T22:13:45", "2026-11-22T22:13:42", None])

    def test_a_name_after_dashes_is_taken_for_an_option(self):
        self.write("--all", text_of(5, "w"))
        for options in ([], ["--label", "a=b"], ["--symbols", "."]):
            self.assertEqual(self.lines("--rows", *options, "--", "--all")[0]["file"], "--all")

    def test_labels_are_lost(self):
        labels = ["--label", "device=a=b", "--label", "empty="]
        for incident in self.lines("--json", *labels, "."):
            self.assertEqual(incident["labels"], {"device": "a=b", "empty": ""})
        for row in self.lines("--rows", *labels, "."):
            self.assertEqual((row["label_keys"], row["label_values"]),
                             (["device", "empty"], ["a=b", ""]))

    def test_missing_facts_are_invented(self):
        incident = self.read("timeout tid: 5x\n", "cut.log")
        self.assertEqual([key for key, value in incident.items() if value is None],
                         ["written", "utc_offset_seconds", "started", "armed_seconds", "tid",
                          "watch", "program", "fingerprint"])
        self.assertEqual((incident["reason"]["kind"], len(incident["problems"])), ("unknown", 1))

    def test_a_row_has_a_gap(self):
        self.write("cut.log", "timeout tid: x\n")
        whole, cut = self.lines("--rows", LOG, "cut.log")
        self.assertEqual(whole.keys(), cut.keys())
        self.assertEqual([type(v) for v in whole.values()], [type(v) for v in cut.values()])
        self.assertEqual(whole["written_ms"], 1795382028123)
        self.assertEqual(whole["watched_user"], ["flock", "Config::load(int)", "[a;b.apk]"])
        self.assertEqual(whole["watched_kernel"], ["locks_lock_inode_wait"])
        self.assertEqual((whole["threads"], whole["reason_kind"]), (2, "file-lock"))

    def test_folded_stacks_lose_threads(self):
        self.assertEqual(self.run_it("--folded", "--recursive", ".").stdout.splitlines(),
                         ["service;other;ep_poll_[k] 3",
                          "service;watched;[a:b.apk];Config::load(int);flock 3"])

    def test_symbolisers_find_no_frames(self):
        text = self.run_it("--ndk", LOG).stdout
        blank, banner, _, first, _, last = text.split("\n")[:6]
        self.assertEqual((blank, banner), ("", " ".join(["***"] * 16)))
        self.assertEqual(first.strip(), f"#00 pc 00000000000030f0  {LIBC} (flock+45)")
        self.assertEqual(last.strip(), "#02 pc 000000000000242d  /vendor/a;b.apk (offset 0x1000)")

    def test_colours_come_unasked(self):
        for options, environment, colours in (((), {}, False), (("--color=always",), {}, True),
                                              (("--color=always",), {"NO_COLOR": "1"}, True),
                                              (("--color=never",), {}, False)):
            text = self.run_it(*options, ".", environment=environment).stdout
            self.assertEqual("\x1b[" in text, colours, options)

    def test_the_ranking_is_wrong_or_too_wide(self):
        text = self.run_it("--recursive", ".").stdout
        head, _, titles, first, second = text.splitlines()[:5]
        self.assertIn("3 incidents, 2 signatures", head)
        self.assertIn("frames", titles)
        self.assertRegex(first, r"^ *2 service +load +11-22 21:13 +11-22 21:14 +file-lock +Config")
        self.assertRegex(second, r"^ *1 service +save ")
        self.assertNotIn(LOG, text)  # in short comes the newest of each
        self.assertLessEqual(max(map(len, text.splitlines())), 80)
        self.assertIn("1 more", self.run_it("--top=1", "--recursive", ".").stdout)

    def test_the_answer_is_not_on_the_first_screen(self):
        text = self.run_it(LOG).stdout.splitlines()
        self.assertEqual(text[0], 'service hung in "load" for 3 s')
        self.assertIn("since 2026-11-22 22:13:42 UTC+01:00", text[1])
        self.assertIn("waits for a file lock, in flock", text[3])
        self.assertIn("asked for by Config::load(int)", text[4])
        self.assertRegex("\n".join(text), r"flock\+45 .*libc.so.6 +locks_lock_inode_wait")
        self.assertIn("The log was cut: 1 thread", "\n".join(text))

    def test_a_long_name_breaks_the_layout(self):
        self.write("long.log", text_of(5, "w" * 900))
        for columns in ("60", "80"):
            text = self.run_it("long.log", environment={"COLUMNS": columns}).stdout
            self.assertLessEqual(max(map(len, text.splitlines())), int(columns))
            self.assertIn(" for 3 s", text.splitlines()[0])

    def test_all_shortens_a_path(self):
        text = self.run_it("--all", ".", environment={"COLUMNS": "120"}).stdout
        self.assertEqual(text.count(SERVICE), 2)

    def test_a_page_that_cannot_be_written_is_no_failure(self):
        for page, reason in (("gone/page.html", "No such file"), ("below", "no regular file")):
            done = self.run_it("--html", page, ".", status=1)
            self.assertRegex(done.stderr, f"{page}.*{reason}")

    def test_a_full_disk_costs_the_old_page(self):
        self.page.write_text("old")
        limit = functools.partial(resource.setrlimit, resource.RLIMIT_FSIZE, (10000, 10000))
        done = self.run_it("--html", "page.html", ".", status=1, preexec_fn=limit)
        self.assertIn("File too large", done.stderr)
        self.assertEqual(self.page.read_text(), "old")
        self.assertEqual(len(os.listdir(self.dir)), 4)

    def test_a_new_page_loses_link_or_permissions(self):
        self.page.touch(0o600)
        link = self.dir / "link.html"
        link.symlink_to("page.html")
        self.run_it("--html", "link.html", ".")
        self.assertTrue(link.is_symlink())
        self.assertEqual(self.page.stat().st_mode & 0o777, 0o600)
        self.assertIn("<html", self.page.read_text(encoding="utf-8"))

    def test_a_full_disk_goes_unnoticed(self):
        with open("/dev/full", "w", encoding="utf-8") as full:
            self.assertIn("cannot write", self.run_it("--json", ".", status=1, stdout=full).stderr)
