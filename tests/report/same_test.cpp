// Names, reasons and signatures: what must be told apart, and what must not.
#include "function_name.h"
#include "log_text.h"
#include "overview.h"

namespace report {
namespace {

class SameTest : public LogTest {
 protected:
  std::string SignatureOf(const std::string& sections) {
    return Read(kHeader + sections).signature;
  }
  Reason ReasonOf(const std::string& sections) { return Read(kHeader + sections).reason; }
};

TEST(FunctionNameTest, BuildsDisagreeOnPlainNames) {
  struct {
    const char *function, *plain;
  } const cases[] = {
      {"foo.constprop.0.isra.0", "foo"},
      {"foo.part.3.cold", "foo"},
      {"Foo::bar(int, char const*) const", "Foo::bar"},
      {"void Foo<int, std::less<int> >::bar<char>(char)", "Foo::bar"},
      {"(anonymous namespace)::Book(int)", "Book"},
      {"operator<<(std::ostream&, Foo const&)", "operator<<"},
      {"Foo::operator()(int) const", "Foo::operator()"},
      {"bool operator< <int>(Foo<int> const&)", "operator<"},
      {"Foo::operator bool() const", "Foo::operator bool"},
      {"worker()::{lambda(int)#2}::operator()(int) const", "worker::{lambda}"},
      {"worker()::$_12::operator()() const", "worker::{lambda}"},
      {"worker()::{lambda()#1}::_FUN()", "worker::{lambda}"},
      {"worker()::$_1::__invoke()", "worker::{lambda}"},
      {"f()::$_0::operator()() const::{lambda()#1}::operator()() const", "f::{lambda}::{lambda}"},
      {"std::enable_if<is_invocable_r_v<void, f()::{lambda()#1}&>, void>::type "
       "std::__invoke_r<void, f()::{lambda()#1}&>(f()::{lambda()#1}&)",
       "f::{lambda}"},
      {"Name[abi:cxx11](int)", "Name"},
      {"core::io::read::h0123456789abcdef", "core::io::read"},
      {"non-virtual thunk to Foo::bar()", "Foo::bar"},
      {"java.lang.Object.wait", "java.lang.Object.wait"},
      {"read@@GLIBC_2.2.5", "read"},
      {"foo(int) [clone .cold]", "foo"},
  };
  for (const auto& [function, plain] : cases) EXPECT_EQ(plain, PlainName(function)) << function;
}

TEST(FunctionNameTest, ShortNameAsksForGigabytes) {
  std::string bomb = "_Z1fI1aE";  // each argument names all before it twice
  for (char c = '0'; c <= '9'; ++c) bomb += std::string("St4pairIS") + c + "_S" + c + "_E";
  for (char c = 'A'; c <= 'Z'; ++c) bomb += std::string("St4pairIS") + c + "_S" + c + "_E";
  EXPECT_EQ(bomb, Demangle(bomb));
}

TEST_F(SameTest, OneHangHasTwoSignatures) {
  const std::string once = User(100, {"libc:__lll_lock_wait", "libc:___pthread_mutex_lock",
                                      "_ZN4Bank8transferERKSs", "serve", "run", "main"});
  const std::string again =
      Kernel(100, {"futex_wait"}) + "\ntid = 100\n" +
      "  #00 pc 00000000000ffff1  /lib64/libc-2.31.so (pthread_mutex_lock+99)\n"
      "  #01 pc 00000000000ffff2  /opt/service (_ZSt4lockv+5)\n"
      "  #02 pc 00000000000ffff3  /opt/service (_ZN4Bank8transferERKSs.constprop.0+8)\n"
      "  #03 pc 00000000000ffff4  /opt/service (serve.isra.0)\n"
      "  #04 pc 00000000000ffff5  /opt/service (serve.isra.0)\n"
      "  #05 pc 00000000000ffff6  /opt/service (run+1)\n"
      "  #06 pc 00000000000ffff7  /opt/service (other_main)\n" +
      User(7, {"elsewhere"});
  EXPECT_EQ("service: reload: mutex: Bank::transfer < serve < run", SignatureOf(once));
  EXPECT_EQ(SignatureOf(once), SignatureOf(again));
}

TEST_F(SameTest, DifferentHangsShareASignature) {
  const std::string base = User(100, {"libc:flock", "lock_file", "load", "main"});
  for (const std::string& other :
       {User(100, {"libc:flock", "lock_file", "save", "main"}),
        User(100, {"libc:flock", "lock_other", "load", "main"}),
        User(100, {"libc:read", "lock_file", "load", "main"}), User(100, {"lock_file", "load"}),
        User(101, {"libc:flock", "lock_file", "load", "main"})}) {
    EXPECT_NE(SignatureOf(base), SignatureOf(other)) << other;
  }
  std::string renamed = kHeader + base;
  renamed.replace(renamed.find("reload"), 6, "save");
  EXPECT_NE(SignatureOf(base), Read(renamed).signature);
}

TEST_F(SameTest, KernelStackGivesTheWrongReason) {
  struct {
    std::vector<std::string> kernel, user;
    const char* kind;
  } const cases[] = {
      {{"folio_wait_bit_common", "filemap_read", "ext4_file_read_iter", "vfs_read", "ksys_read"},
       {"libc:read", "load"},
       "file-read"},
      {{"balance_dirty_pages", "generic_perform_write", "vfs_write"}, {"libc:write"}, "file-write"},
      {{"jbd2_log_wait_commit", "ext4_sync_file", "do_fsync"}, {"libc:fsync", "save"}, "disk"},
      {{"rwsem_down_read_slowpath", "do_user_addr_fault", "exc_page_fault"}, {"copy"}, "memory"},
      {{"io_schedule", "filemap_fault", "asm_exc_page_fault", "copy_to_user", "vfs_read"},
       {"libc:read"},
       "memory"},
      {{"binder_wait_for_work", "binder_thread_read", "binder_ioctl"},
       {"libc:__ioctl", "_ZN7android14IPCThreadState14talkWithDriverEb", "call"},
       "binder"},
      {{"sk_wait_data", "tcp_recvmsg_locked", "inet_recvmsg"}, {"libc:read", "fetch"}, "socket"},
      {{"futex_wait_queue_me", "futex_wait"}, {"libc:syscall", "park"}, "futex"},
      {{"do_signal_stop", "get_signal"}, {"work"}, "stopped"},
      {{"irqentry_exit_to_user_mode", "asm_sysvec_apic_timer_interrupt"}, {"work"}, "running"},
      {{"request_wait_answer", "mystery"}, {"libc:ioctl", "work"}, "unknown"},
      {{}, {"libc:syscall", "work"}, "unknown"},
  };
  for (const auto& [kernel, user, kind] : cases) {
    EXPECT_EQ(kind, ReasonOf(Kernel(100, kernel) + User(100, user)).kind)
        << (kernel.empty() ? "" : kernel[0]) << ", " << user[0];
  }
}

TEST_F(SameTest, UserStackAloneGivesNoReason) {
  struct {
    std::vector<std::string> user;
    const char *kind, *text;
  } const cases[] = {
      {{"libc:syscall", "libc:_ZN5NonPIL20MutexLockWithTimeoutEv", "libc:pthread_mutex_lock"},
       "mutex",
       "waits for a mutex, in pthread_mutex_lock"},
      {{"libc:pthread_cond_wait", "work"},
       "condition",
       "waits for a condition, in pthread_cond_wait"},
      {{"libc:sem_wait", "work"}, "futex", "waits for a semaphore, in sem_wait"},
      {{"libc:pthread_join", "work"}, "futex", "waits for a thread to end, in pthread_join"},
      {{"libc:__GI___poll", "work"}, "poll", "waits for events, in poll"},
      {{"libc:epoll_pwait", "work"}, "poll", "waits for events, in epoll_pwait"},
      {{"libc:__libc_recv", "work"}, "socket", "waits for data of a socket, in recv"},
      {{"libc:wait4", "work"}, "child", "waits for a child process, in wait4"},
      {{"libc:clock_nanosleep", "libc:sleep", "work"}, "sleep", "sleeps, in sleep"},
      {{"libc:__sigtimedwait", "libc:sigwait"}, "signal", "waits for a signal, in sigwait"},
      {{"libc:read", "work"}, "unknown", "reads, in read; the log does not tell for what"},
      {{"spin", "work"}, "running", "runs, in spin"},
  };
  for (const auto& [user, kind, text] : cases) {
    const Reason reason = ReasonOf(User(100, user));
    EXPECT_EQ(kind, reason.kind) << user[0];
    EXPECT_EQ(text, reason.text) << user[0];
  }
}

TEST_F(SameTest, OddThreadDrownsInItsPool) {
  std::string sections = User(100, {"libc:pthread_cond_wait", "finish"});
  for (int tid = 200; tid < 259; ++tid) sections += User(tid, {"libc:pthread_cond_wait", "idle"});
  sections += User(300, {"libc:recv", "fetch"});
  const Incident incident = Read(kHeader + sections);
  EXPECT_EQ(59u, incident.groups.at(0).tids.size());
  const Overview overview = MakeOverview(incident);
  ASSERT_EQ(1u, overview.others.size());
  EXPECT_EQ(300, overview.others[0].threads.at(0)->tid);
  ASSERT_EQ(1u, overview.idle.size());
  EXPECT_EQ(59u, overview.idle[0].threads.size());
}

TEST_F(SameTest, OtherSideOfADeadlockIsNotNamed) {
  const Incident incident =
      Read(kHeader + User(100, {"libc:pthread_mutex_lock", "notify", "save"}) +
           User(101, {"libc:pthread_mutex_lock", "read", "add"}) + User(102, {"notify"}) +
           Kernel(103, {"do_wait"}));
  const Overview overview = MakeOverview(incident);
  ASSERT_EQ(2u, overview.related.size());
  EXPECT_EQ(Relation::kSameWait, overview.related[0].relation);
  EXPECT_EQ(Relation::kSameFunction, overview.related[1].relation);
  EXPECT_NE(std::string::npos, overview.hint.find("deadlock"));
  EXPECT_EQ(103, overview.cut.at(0)->tid);
}

}  // namespace
}  // namespace report
