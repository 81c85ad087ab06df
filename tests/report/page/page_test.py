"""The page of quorvel-report --html, in a real browser."""

import os
import pathlib
import sys
import unittest

import sample_logs
from report_case import ReportTest

AXE = pathlib.Path(__file__).resolve().parent / "node_modules/axe-core/axe.min.js"
SKIPPED = 77  # ctest's sign that a test could not run
try:
    from page import browser
    from selenium.common.exceptions import JavascriptException
    from selenium.webdriver.common.keys import Keys
    for needed in (AXE, browser.CHROMIUM, browser.CHROMEDRIVER):
        os.stat(needed)
except (ImportError, OSError) as missing:
    print(f"{missing}: scripts/setup page")
    sys.exit(1 if os.environ.get("CI") else SKIPPED)

MANY_INCIDENTS, MANY_THREADS, MANY_SECONDS = 1000, 50, 3
HOSTILE = "</script><script>window.hit=1</script><img src=x onerror='window.hit=1'>"


def setUpModule():
    PageTest.browser = browser.Browser()
    unittest.addModuleCleanup(PageTest.browser.quit)


class PageTest(ReportTest):
    browser = None  # one for all tests: each opens a page of its own

    def tearDown(self):
        """No page may have requested anything or logged an error."""
        addresses = {address.partition("#")[0] for address in self.browser.requests()}
        self.assertEqual(addresses, {"file://" + self.page})
        self.assertEqual(self.browser.console(), [])

    def open(self, *texts, address=""):
        """Opens the page of these logs."""
        for i, text in enumerate(texts):
            self.write(f"quorvel@{sample_logs.FIRST_MS + i}.log", text)
        self.run_it("--html", "page.html", ".")
        self.page = f"{self.dir}/page.html"
        self.seconds = self.browser.open(self.page, address)

    def raw_log(self):
        self.browser.click(".raw-log summary", shows=".raw-log pre")
        return self.browser.execute_script("return document.querySelector('.raw-log pre').textContent")

    def setUp(self):
        super().setUp()
        self.browser.set_view()


class OneIncident(PageTest):
    def setUp(self):
        super().setUp()
        self.log = sample_logs.log_text(sample_logs.deadlock())
        self.open(self.log)

    def shown_boxes(self):
        return self.browser.execute_script(
            "return [...document.querySelectorAll('.box')]"
            ".map((box) => [box.textContent, Math.round(box.getBoundingClientRect().width)])")

    def test_cause_names_both_threads_of_a_deadlock(self):
        cause = self.browser.text(".cause")
        self.assertRegex(cause, r"Thread 15634 waits for a mutex[^\n]*asked for by\s+"
                                r"lock_account_b ← transfer_a_to_b")
        self.assertRegex(cause, r"Thread 15635: waits for a mutex[^\n]*\s+"
                                r"lock_account_a ← transfer_b_to_a")

    def test_group_unfolds_to_both_stacks(self):
        self.browser.click(".groups > li:nth-child(3) summary", shows=".groups .stack")
        user, kernel = self.browser.texts(".groups .stack")
        self.assertIn("read_header", user)
        self.assertIn("unix_stream_read_generic", kernel)

    def test_click_zooms_and_button_shows_all(self):
        before = self.shown_boxes()
        self.browser.click(".box[aria-label^='transfer_b_to_a,']")
        zoomed = dict(self.shown_boxes())
        picture = self.browser.find_element("class name", "icicle").size["width"]
        self.assertAlmostEqual(zoomed["transfer_b_to_a"], picture, delta=2)
        self.assertAlmostEqual(zoomed["lock_account_a"], picture, delta=2)
        self.assertNotIn("take_job", zoomed)
        self.browser.click(".tools button")
        self.assertEqual(self.shown_boxes(), before)

    def test_keys_move_and_zoom(self):
        def focused():
            return self.browser.execute_script("return document.activeElement.getAttribute('aria-label')")
        self.browser.execute_script("document.querySelector('.box[tabindex=\"0\"]').focus()")
        for key, label in ((Keys.ARROW_DOWN, "clone3,"), (Keys.ARROW_DOWN, "start_thread,"),
                           (Keys.ARROW_DOWN, "transfer_a_to_b,"), (Keys.ARROW_RIGHT, "take_job,"),
                           (Keys.ARROW_LEFT, "transfer_a_to_b,"), (Keys.ENTER, "transfer_a_to_b,"),
                           (Keys.ARROW_UP, "start_thread,")):
            self.browser.switch_to.active_element.send_keys(key)
            self.assertTrue(focused().startswith(label), f"{focused()} after {label}")
        zoomed = "return document.querySelector('.box[aria-selected=true]').textContent"
        self.assertEqual(self.browser.execute_script(zoomed), "transfer_a_to_b")
        self.browser.switch_to.active_element.send_keys(Keys.ESCAPE)
        self.assertEqual(self.browser.execute_script(zoomed), "start_thread")

    def test_picture_leaves_out_idle_threads(self):
        self.browser.click("#only-busy")
        boxes = dict(self.shown_boxes())
        self.assertNotIn("take_job", boxes)
        self.assertGreater(boxes["transfer_a_to_b"], 300)

    def test_search_marks_frames_and_counts_threads(self):
        self.browser.find_element("id", "search").send_keys("READ_HEAD")
        self.browser.wait("return document.getElementById('search-status').textContent.includes('1 thread here')")
        self.assertEqual(self.browser.texts(".groups > li .tag:not([hidden])"), ["watched", "matches"])
        self.assertEqual(self.browser.execute_script(
            "return [...document.querySelectorAll('.box.match')].map((box) => box.getAttribute('aria-label'))"),
            ["read_header, 1 of 60 threads"])
        self.browser.click(".groups > li:nth-child(3) summary", shows=".groups .stack mark")
        self.assertEqual(self.browser.text(".groups .stack mark"), "read_head")

    def test_addresses_and_paths_show_on_demand(self):
        self.assertNotIn(sample_logs.SERVICE, self.browser.text(".stack"))
        self.browser.click("#exact")
        self.assertIn(f"{sample_logs.SERVICE} (lock_account_b+45)", self.browser.text(".stack"))

    def test_raw_log_is_the_file(self):
        self.assertEqual(self.raw_log().rstrip("\n"), self.log.rstrip("\n"))

    def test_long_raw_log_comes_in_steps(self):
        self.open(self.log + "printed by the program\n" * 12000)
        for button in (".raw-log summary", ".raw-log .more"):
            self.browser.click(button, shows=".raw-log .more:not([hidden])")
        self.browser.click(".raw-log .more")
        self.assertEqual(self.browser.execute_script(
            "return document.querySelector('.raw-log pre').textContent.match(/printed by/g).length"), 12000)

    def test_theme_switch_overrides_the_system(self):
        colour = "return getComputedStyle(document.body).backgroundColor"
        light = self.browser.execute_script(colour)
        self.browser.set_view(dark=True)
        dark = self.browser.execute_script(colour)
        self.assertNotEqual(light, dark)
        self.browser.find_element("id", "theme").send_keys("Light")
        self.assertEqual(self.browser.execute_script(colour), light)


class Pool(PageTest):
    def test_groups_come_watched_then_rare_then_idle_in_one_line(self):
        threads = {9: sample_logs.mutex_wait("pay"), 8: sample_logs.socket_read("resolve")}
        threads.update({1 + i: sample_logs.socket_read("read_header") for i in range(3)})
        threads.update({10 + i: sample_logs.idle() for i in range(57)})
        self.open(sample_logs.log_text(threads))
        watched, rare, common, idle = self.browser.texts(".groups > li")
        self.assertRegex(watched, "^1 thread watched – waits for a mutex.* 9")
        self.assertRegex(rare, "^1 thread – .* 8\\s+resolve$")
        self.assertRegex(common, "^3 threads – .* 1, 2, 3\\s+read_header$")
        self.assertRegex(idle, r"^57 threads – only idle \(57 condition\)\s*$")

    def test_cause_names_the_thread_of_the_pool_that_is_stuck(self):
        threads = {1: sample_logs.idle("close_day"), 2: sample_logs.socket_read("fetch_rate", "price")}
        threads.update({10 + i: sample_logs.idle() for i in range(50)})
        self.open(sample_logs.log_text(threads))
        self.assertRegex(self.browser.text(".cause"), r"Thread 2: waits for a socket[^$]*fetch_rate ← price")
        self.assertNotIn("take_job", self.browser.text(".cause"))

    def test_other_kernel_stacks_of_a_group_are_told_apart(self):
        user, kernel = sample_logs.socket_read("read_header")
        threads = {1: sample_logs.mutex_wait("pay"), 2: (user, kernel), 3: (user, kernel),
                   4: (user, ["tcp_recvmsg"] + kernel[1:])}
        self.open(sample_logs.log_text(threads))
        self.browser.click(".groups > li:nth-child(2) summary", shows=".group-body")
        self.assertEqual([text for text in self.browser.texts(".group-body h3") if "this" in text],
                         ["1 thread with this kernel stack: 4", "2 threads with this kernel stack: 2, 3"])

    def test_thread_that_was_not_unwound_tells_why(self):
        self.open(sample_logs.log_text({1: sample_logs.idle()}) + "Unwind failed: tid = 8: it ended\n")
        self.assertIn("it ended", self.browser.texts(".groups > li")[1])
        self.assertIsNone(self.browser.text(".warning"))

    def test_picture_of_500_threads_folds_what_is_too_narrow(self):
        threads = {100 + i: sample_logs.mutex_wait(*(f"call_{i}_{depth}" for depth in range(30)))
                   for i in range(500)}
        self.open(sample_logs.log_text(threads))
        boxes = "return document.querySelectorAll('.box').length"
        self.assertLess(self.browser.execute_script(boxes), 600)
        self.browser.click(".box[aria-label^='call_77_29,']")
        self.assertLessEqual({"call_77_0", "futex_wait"}, set(self.browser.texts(".box")))

    def test_time_is_told_in_utc_and_of_the_device(self):
        self.open(sample_logs.log_text({1: sample_logs.idle()}, utc_offset=5 * 3600 + 1800))
        self.assertIn("2026-11-22 21:13:45 UTC (02:43:45 on the device)", self.browser.text(".facts"))


class HostileLogs(PageTest):
    def test_markup_in_names_is_text(self):
        threads = {7: sample_logs.mutex_wait(HOSTILE), 8: sample_logs.idle(HOSTILE + "2")}
        self.open(sample_logs.log_text(threads, watch=HOSTILE, program="<b>p</b>"))
        self.browser.click(".tools button:nth-of-type(1)")
        for shown in (self.browser.text("h1"), self.browser.text(".cause"), self.raw_log()):
            self.assertIn(HOSTILE, shown)
        self.assertIsNone(self.browser.execute_script("return window.hit ?? document.querySelector('img, b')"))

    def test_policy_stops_what_text_would_bring(self):
        """Were there a way for markup into the page, the browser would still refuse it."""
        self.open(sample_logs.log_text(sample_logs.deadlock()))
        self.browser.execute_script("document.head.append(document.createElement('style'));"
                                    "document.head.lastChild.textContent = 'p { color: red }'")
        with self.assertRaises(JavascriptException):
            self.browser.execute_script("document.body.innerHTML = '<img src=x>'")
        self.assertRegex(" ".join(self.browser.console()), "inline style.* 'TrustedHTML'")

    def test_control_and_direction_characters_show(self):
        self.open(sample_logs.log_text({7: sample_logs.idle()}) + "\x1b[31m\u202egnp.exe\u2028\n")
        self.assertIn("␛[31m\ufffdgnp.exe\ufffd", self.raw_log())

    def test_log_cut_after_the_kernel_stacks_says_so(self):
        text = sample_logs.log_text({7: sample_logs.idle(), 8: sample_logs.idle()})
        self.open(text[:text.index("tid = 8\n  #00")])
        self.assertRegex(self.browser.text(".warning"), r"cut short: 1 thread [^\n]*\(8\)")

    def test_log_without_stacks_still_opens(self):
        self.open("Mon Nov 23 10:00:00 2026\ntimeout tid: 7\n")
        self.assertIn("no stack of the watched thread 7", self.browser.text(".cause"))


class ManyIncidents(PageTest):
    def logs(self, watches=("a", "b", "b")):
        return [sample_logs.log_text({7: sample_logs.mutex_wait(f"work_{watch}")}, watch=watch,
                                     ms=sample_logs.FIRST_MS + i) for i, watch in enumerate(watches)]

    def test_ranking_leads_to_its_incidents(self):
        self.open(*self.logs())
        self.assertRegex(self.browser.texts(".ranking li")[0], r"2\s+incidents[^$]*b in bank_service")
        self.browser.click(".ranking li a")
        self.browser.wait("return document.querySelectorAll('.incidents li').length === 2")
        self.browser.click(".incidents li a", shows=".cause")
        self.assertIn("work_b", self.browser.text(".cause"))
        self.browser.back()
        self.browser.wait("return document.activeElement === document.querySelector('.incidents li a')")

    def test_incidents_of_a_signature_follow_one_another(self):
        self.open(*self.logs(), address="#incident/2")
        self.assertIn("1 of 2 with this signature", self.browser.text(".steps"))
        self.browser.find_element("link text", "Older").click()
        self.browser.wait("return location.hash === '#incident/1'")
        self.assertIn("2 of 2 with this signature", self.browser.text(".steps"))
        self.assertEqual(self.browser.find_elements("link text", "Older"), [])

    def test_search_leaves_the_incidents_that_match(self):
        self.open(*self.logs())
        self.browser.find_element("id", "search").send_keys("work_a")
        self.browser.wait("return document.querySelectorAll('.incidents li').length === 1")
        self.assertEqual(len(self.browser.texts(".ranking li")), 1)
        self.assertIn("1 incident of 3", self.browser.text("#search-status"))

    def test_thousand_incidents_are_ready_in_time(self):
        def threads(i):
            kinds = (sample_logs.idle, sample_logs.mutex_wait, sample_logs.socket_read)
            return {100 + j: kinds[j * (i % 9 + 1) % 3](f"job_{j % 13}", f"pool_{i % 7}")
                    for j in range(MANY_THREADS)}
        self.open(*(sample_logs.log_text(threads(i), watch=f"watch-{i % 25}", ms=sample_logs.FIRST_MS + i)
                    for i in range(MANY_INCIDENTS)))
        print(f"{MANY_INCIDENTS} incidents of {MANY_THREADS} threads: ready after {self.seconds:.2f} s")
        self.assertIn("1,000 incidents", self.browser.text("h1"))
        self.assertLess(self.seconds, MANY_SECONDS)


class Accessibility(PageTest):
    def violations(self):
        self.browser.execute_cdp_cmd("Page.setBypassCSP", {"enabled": True})
        self.addCleanup(self.browser.execute_cdp_cmd, "Page.setBypassCSP", {"enabled": False})
        self.browser.refresh()
        self.browser.wait("return document.documentElement.dataset.ready === 'true'")
        self.browser.execute_script(AXE.read_text(encoding="utf-8"))
        found = self.browser.execute_async_script("axe.run().then(arguments[0])")["violations"]
        return [f"{item['id']}: {item['nodes'][0]['html'][:200]}" for item in found]

    def check(self, prepare):
        for width, dark in ((1400, False), (1400, True), (420, False), (420, True)):
            with self.subTest(width=width, dark=dark):
                self.browser.set_view(width, dark=dark)
                self.assertEqual(self.violations(), [])
                prepare()
                overflow = "return document.documentElement.scrollWidth - innerWidth"
                self.assertLessEqual(self.browser.execute_script(overflow), 0)

    def test_incident_has_no_fault(self):
        self.open(sample_logs.log_text(sample_logs.deadlock()))
        self.check(lambda: self.browser.click(".tools button:nth-of-type(1)"))

    def test_overview_has_no_fault(self):
        self.open(*(sample_logs.log_text(sample_logs.deadlock(), watch=f"w{i % 3}") for i in range(9)))
        self.check(lambda: None)
