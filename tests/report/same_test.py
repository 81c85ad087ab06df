"""Names, reasons and signatures: what must be told apart, and what must not."""

import string

from report_case import LOG, ReportTest
from sample_logs import header, kernel, user


class SameTest(ReportTest):
    def reason(self, sections):
        reason = self.read(header() + sections)["reason"]
        return reason["kind"], reason["text"]

    def signature(self, sections, **facts):
        return self.read(header(**facts) + sections)["signature"]

    def test_builds_disagree_on_a_plain_name(self):
        for function, plain in (
                ("foo.constprop.0.isra.0", "foo"),
                ("foo.part.3.cold", "foo"),
                ("Foo::bar(int, char const*) const", "Foo::bar"),
                ("void Foo<int, std::less<int> >::bar<char>(char)", "Foo::bar"),
                ("(anonymous namespace)::Book(int)", "Book"),
                ("operator<<(std::ostream&, Foo const&)", "operator<<"),
                ("Foo::operator()(int) const", "Foo::operator()"),
                ("bool operator< <int>(Foo<int> const&)", "operator<"),
                ("Foo::operator bool() const", "Foo::operator bool"),
                ("worker()::{lambda(int)#2}::operator()(int) const", "worker::{lambda}"),
                ("worker()::$_12::operator()() const", "worker::{lambda}"),
                ("worker()::{lambda()#1}::_FUN()", "worker::{lambda}"),
                ("worker()::$_1::__invoke()", "worker::{lambda}"),
                ("f()::$_0::operator()() const::{lambda()#1}::operator()() const",
                 "f::{lambda}::{lambda}"),
                ("std::enable_if<is_invocable_r_v<void, f()::{lambda()#1}&>, void>::type "
                 "std::__invoke_r<void, f()::{lambda()#1}&>(f()::{lambda()#1}&)", "f::{lambda}"),
                ("Name[abi:cxx11](int)", "Name"),
                ("core::io::read::h0123456789abcdef", "core::io::read"),
                ("non-virtual thunk to Foo::bar()", "Foo::bar"),
                ("java.lang.Object.wait", "java.lang.Object.wait"),
                ("work@@GLIBC_2.2.5", "work"),
                ("foo(int) [clone .cold]", "foo")):
            self.assertEqual(self.reason(user(100, function)), ("running", f"runs, in {plain}"))

    def test_a_short_name_asks_for_gigabytes(self):
        pairs = [f"St4pairIS{c}_S{c}_E" for c in string.digits + string.ascii_uppercase]
        bomb = "_Z1fI1aE" + "".join(pairs)  # each argument names all before it twice
        self.assertEqual(self.reason(user(100, bomb)), ("running", f"runs, in {bomb}"))

    def test_one_hang_has_two_signatures(self):
        once = user(100, "libc:__lll_lock_wait", "libc:___pthread_mutex_lock",
                    "_ZN4Bank8transferERKSs", "serve", "run", "main")
        again = (kernel(100, "futex_wait") + "\ntid = 100\n"
                 "  #00 pc 00000000000ffff1  /lib64/libc-2.31.so (pthread_mutex_lock+99)\n"
                 "  #01 pc 00000000000ffff2  /opt/service (_ZSt4lockv+5)\n"
                 "  #02 pc 00000000000ffff3  /opt/service (_ZN4Bank8transferERKSs.constprop.0+8)\n"
                 "  #03 pc 00000000000ffff4  /opt/service (serve.isra.0)\n"
                 "  #04 pc 00000000000ffff5  /opt/service (serve.isra.0)\n"
                 "  #05 pc 00000000000ffff6  /opt/service (run+1)\n"
                 "  #06 pc 00000000000ffff7  /opt/service (other_main)\n" + user(7, "elsewhere"))
        for sections in (once, again):
            self.assertEqual(self.signature(sections),
                             "bank_service: transfer-money: mutex: Bank::transfer < serve < run")

    def test_different_hangs_share_a_signature(self):
        base = user(100, "libc:flock", "lock_file", "load", "main")
        signatures = {self.signature(base), self.signature(base, watch="save"),
                      self.signature(base, program="shop_service"), self.signature(base, tid=101)}
        for functions in (("libc:flock", "lock_file", "save", "main"),
                          ("libc:flock", "lock_other", "load", "main"),
                          ("libc:read", "lock_file", "load", "main"),
                          ("lock_file", "load", "main")):
            signatures.add(self.signature(user(100, *functions)))
        self.assertEqual(len(signatures), 8)

    def test_a_kernel_stack_gives_the_wrong_reason(self):
        for kind, waiting, functions in (
                ("file-read", ["folio_wait_bit_common", "filemap_read", "ext4_file_read_iter",
                               "vfs_read", "ksys_read"], ["libc:read", "load"]),
                ("file-write", ["balance_dirty_pages", "generic_perform_write", "vfs_write"],
                 ["libc:write"]),
                ("disk", ["jbd2_log_wait_commit", "ext4_sync_file", "do_fsync"], ["libc:fsync"]),
                ("memory", ["rwsem_down_read_slowpath", "do_user_addr_fault", "exc_page_fault"],
                 ["copy"]),
                ("memory", ["io_schedule", "filemap_fault", "asm_exc_page_fault", "copy_to_user",
                            "vfs_read"], ["libc:read"]),
                ("binder", ["binder_wait_for_work", "binder_thread_read", "binder_ioctl"],
                 ["libc:__ioctl", "_ZN7android14IPCThreadState14talkWithDriverEb", "call"]),
                ("socket", ["sk_wait_data", "tcp_recvmsg_locked", "inet_recvmsg"], ["libc:read"]),
                ("futex", ["futex_wait_queue_me", "futex_wait"], ["libc:syscall", "park"]),
                ("stopped", ["do_signal_stop", "get_signal"], ["work"]),
                ("running", ["irqentry_exit_to_user_mode", "asm_sysvec_apic_timer_interrupt"],
                 ["work"]),
                ("unknown", ["request_wait_answer", "mystery"], ["libc:ioctl", "work"]),
                ("unknown", [], ["libc:syscall", "work"])):
            sections = kernel(100, *waiting) + user(100, *functions)
            self.assertEqual(self.reason(sections)[0], kind, sections)

    def test_a_user_stack_alone_gives_no_reason(self):
        for kind, text, *functions in (
                ("mutex", "waits for a mutex, in pthread_mutex_lock", "libc:syscall",
                 "libc:_ZN5NonPIL20MutexLockWithTimeoutEv", "libc:pthread_mutex_lock"),
                ("condition", "waits for a condition, in pthread_cond_wait",
                 "libc:pthread_cond_wait", "work"),
                ("futex", "waits for a semaphore, in sem_wait", "libc:sem_wait", "work"),
                ("futex", "waits for a thread to end, in pthread_join", "libc:pthread_join"),
                ("poll", "waits for events, in poll", "libc:__GI___poll", "work"),
                ("poll", "waits for events, in epoll_pwait", "libc:epoll_pwait", "work"),
                ("socket", "waits for data of a socket, in recv", "libc:__libc_recv", "work"),
                ("child", "waits for a child process, in wait4", "libc:wait4", "work"),
                ("sleep", "sleeps, in sleep", "libc:clock_nanosleep", "libc:sleep", "work"),
                ("signal", "waits for a signal, in sigwait", "libc:__sigtimedwait", "libc:sigwait"),
                ("unknown", "reads, in read; the log does not tell for what", "libc:read", "work"),
                ("running", "runs, in spin", "spin", "work")):
            self.assertEqual(self.reason(user(100, *functions)), (kind, text))

    def test_an_odd_thread_drowns_in_its_pool(self):
        sections = (user(100, "libc:pthread_cond_wait", "finish") + user(300, "libc:recv", "fetch")
                    + user(10, "spin") + user(11, "spin"))
        for tid in range(200, 259):
            sections += user(tid, "libc:pthread_cond_wait", "idle")
        largest, *_ = self.read(header() + sections)["groups"]
        self.assertEqual(len(largest["tids"]), 59)
        self.assertRegex(self.run_it(LOG).stdout, r"(?s)look first at those that are not idle.*"
                         r"Other threads, rare ones first\n  1 thread: [^\n]*  300\n.*"
                         r"\n  2 threads: runs, in spin  10, 11\n.*"
                         r"Idle threads\n  59 threads: condition: idle  200, 201,")

    def test_the_other_side_of_a_deadlock_is_not_named(self):
        self.write(LOG, header() + user(100, "libc:pthread_mutex_lock", "notify", "save")
                   + user(101, "libc:pthread_mutex_lock", "read", "add") + user(102, "notify")
                   + kernel(103, "do_wait"))
        head, _, related, _, warning = self.run_it(LOG).stdout.split("\n\n")
        self.assertIn(" 2 threads wait for mutexes: a deadlock", head)
        self.assertRegex(related, r"^Who else is in the same lock or function\n"
                                  r"  1 thread: .*  101\n.*\n  1 thread: runs, in notify  102\n")
        self.assertIn("The log was cut: 1 thread without a user stack", warning)
