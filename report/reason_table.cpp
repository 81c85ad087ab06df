// The table of reasons. To extend it, add a line: the function's name (a star stands for any
// characters), the kind, and the words. The first line that matches a name counts.
#include "reason_table.h"

#include <algorithm>

namespace report {
namespace {

// The functions of user stacks that wait, by CanonicalWaitName. An empty kind: the kernel's stack
// alone tells what they wait for.
constexpr Wait kUserWaits[] = {
    {"lll_lock_wait*", "mutex", "waits for a mutex"},
    {"lll_timedlock_wait", "mutex", "waits for a mutex"},
    {"pthread_mutex_lock*", "mutex", "waits for a mutex"},
    {"pthread_mutex_timedlock", "mutex", "waits for a mutex"},
    {"pthread_mutex_clocklock", "mutex", "waits for a mutex"},
    {"pthread_spin_lock", "mutex", "spins for a lock"},
    {"mtx_lock", "mutex", "waits for a mutex"},
    {"mtx_timedlock", "mutex", "waits for a mutex"},
    {"NonPI::MutexLockWithTimeout*", "mutex", "waits for a mutex"},
    {"PIMutexTimedLock", "mutex", "waits for a mutex"},
    {"art::Mutex::ExclusiveLock*", "mutex", "waits for a mutex"},
    {"art::ReaderWriterMutex::*", "mutex", "waits for a read-write lock"},
    {"art::Monitor::Lock*", "mutex", "waits for an object's monitor"},
    {"pthread_rwlock_*", "mutex", "waits for a read-write lock"},
    {"absl::Mutex::*", "mutex", "waits for a mutex"},
    {"pthread_cond_*wait*", "condition", "waits for a condition"},
    {"cnd_wait", "condition", "waits for a condition"},
    {"cnd_timedwait", "condition", "waits for a condition"},
    {"art::ConditionVariable::*", "condition", "waits for a condition"},
    {"art::Monitor::Wait*", "condition", "waits to be notified"},
    {"absl::CondVar::*", "condition", "waits for a condition"},
    {"futex*", "futex", "waits for a futex"},
    {"*sem_wait*", "futex", "waits for a semaphore"},
    {"sem_timedwait*", "futex", "waits for a semaphore"},
    {"sem_clockwait*", "futex", "waits for a semaphore"},
    {"pthread_barrier_wait", "futex", "waits at a barrier"},
    {"pthread_*join*", "futex", "waits for a thread to end"},
    {"thrd_join", "futex", "waits for a thread to end"},
    {"pthread_once*", "futex", "waits for another thread's initialisation"},
    {"cxa_guard_acquire", "futex", "waits for another thread's initialisation"},
    {"gai_suspend", "futex", "waits for an address look-up"},
    {"aio_suspend", "futex", "waits for asynchronous input or output"},
    {"flock", "file-lock", "waits for a file lock"},
    {"lockf", "file-lock", "waits for a file lock"},
    {"fcntl", "file-lock", "waits for a file lock"},
    {"pread", "file-read", "waits for data of a file"},
    {"preadv", "file-read", "waits for data of a file"},
    {"preadv2", "file-read", "waits for data of a file"},
    {"getdents", "file-read", "waits for the entries of a directory"},
    {"pwrite", "file-write", "waits while it writes to a file"},
    {"pwritev", "file-write", "waits while it writes to a file"},
    {"pwritev2", "file-write", "waits while it writes to a file"},
    {"fsync", "disk", "waits until the disk has its data"},
    {"fdatasync", "disk", "waits until the disk has its data"},
    {"sync", "disk", "waits until the disk has its data"},
    {"syncfs", "disk", "waits until the disk has its data"},
    {"sync_file_range", "disk", "waits until the disk has its data"},
    {"msync", "disk", "waits until the disk has its data"},
    {"recv", "socket", "waits for data of a socket"},
    {"recvfrom", "socket", "waits for data of a socket"},
    {"recvmsg", "socket", "waits for data of a socket"},
    {"recvmmsg", "socket", "waits for data of a socket"},
    {"send", "socket", "waits while it sends to a socket"},
    {"sendto", "socket", "waits while it sends to a socket"},
    {"sendmsg", "socket", "waits while it sends to a socket"},
    {"sendmmsg", "socket", "waits while it sends to a socket"},
    {"accept", "socket", "waits for a connection"},
    {"accept4", "socket", "waits for a connection"},
    {"connect", "socket", "waits until it is connected"},
    {"poll", "poll", "waits for events"},
    {"ppoll", "poll", "waits for events"},
    {"select", "poll", "waits for events"},
    {"pselect", "poll", "waits for events"},
    {"epoll_wait", "poll", "waits for events"},
    {"epoll_pwait", "poll", "waits for events"},
    {"epoll_pwait2", "poll", "waits for events"},
    {"android::IPCThreadState::*", "binder", "waits for binder"},
    {"android::BpBinder::transact", "binder", "waits for a binder reply"},
    {"android::hardware::IPCThreadState::*", "binder", "waits for binder"},
    {"android::hardware::BpHwBinder::transact", "binder", "waits for a binder reply"},
    {"AIBinder_transact", "binder", "waits for a binder reply"},
    {"wait", "child", "waits for a child process"},
    {"wait3", "child", "waits for a child process"},
    {"wait4", "child", "waits for a child process"},
    {"waitpid", "child", "waits for a child process"},
    {"waitid", "child", "waits for a child process"},
    {"sleep", "sleep", "sleeps"},
    {"usleep", "sleep", "sleeps"},
    {"nanosleep", "sleep", "sleeps"},
    {"clock_nanosleep*", "sleep", "sleeps"},
    {"thrd_sleep", "sleep", "sleeps"},
    {"pause", "signal", "waits for a signal"},
    {"sigsuspend", "signal", "waits for a signal"},
    {"rt_sigsuspend", "signal", "waits for a signal"},
    {"sigwait", "signal", "waits for a signal"},
    {"sigwaitinfo", "signal", "waits for a signal"},
    {"sigtimedwait", "signal", "waits for a signal"},
    {"rt_sigtimedwait", "signal", "waits for a signal"},
    {"syscall", "", "is in the kernel"},
    {"*syscall_cancel*", "", "is in the kernel"},
    {"read", "", "reads"},
    {"readv", "", "reads"},
    {"write", "", "writes"},
    {"writev", "", "writes"},
    {"splice", "", "moves data"},
    {"sendfile", "", "moves data"},
    {"ioctl", "", "waits for a device"},
    {"open", "", "opens a file"},
    {"openat", "", "opens a file"},
    {"close", "", "closes a file"},
    {"mq_receive", "", "waits for a message"},
    {"mq_timedreceive", "", "waits for a message"},
    {"msgrcv", "", "waits for a message"},
    {"semop", "", "waits for a semaphore"},
};

// The kernel's functions. Stacks are searched from the innermost function outwards, and a
// function's first matching line counts. What many kinds of wait share (schedule, io_schedule, the
// wait for a bit of a page) has no line, so that the functions further out decide.
constexpr Wait kKernelWaits[] = {
    {"futex_*", "futex", "waits for a futex"},
    {"do_futex", "futex", "waits for a futex"},
    {"*sys_futex*", "futex", "waits for a futex"},

    {"locks_lock_*", "file-lock", "waits for a file lock"},
    {"flock_lock_*", "file-lock", "waits for a file lock"},
    {"posix_lock_*", "file-lock", "waits for a file lock"},
    {"do_lock_file_wait*", "file-lock", "waits for a file lock"},
    {"fcntl_setlk*", "file-lock", "waits for a file lock"},
    {"*sys_flock", "file-lock", "waits for a file lock"},
    {"__break_lease", "file-lock", "waits for a file's lease"},

    {"pipe_*", "pipe", "waits for a pipe"},
    {"anon_pipe_*", "pipe", "waits for a pipe"},
    {"fifo_*", "pipe", "waits for the other end of a pipe"},
    {"wait_for_partner", "pipe", "waits for the other end of a pipe"},

    {"unix_*", "socket", "waits for a socket"},
    {"tcp_*", "socket", "waits for a socket"},
    {"udp_*", "socket", "waits for a socket"},
    {"udpv6_*", "socket", "waits for a socket"},
    {"inet_*", "socket", "waits for a socket"},
    {"inet6_*", "socket", "waits for a socket"},
    {"netlink_*", "socket", "waits for a socket"},
    {"packet_recvmsg", "socket", "waits for a socket"},
    {"vsock_*", "socket", "waits for a socket"},
    {"sk_wait_*", "socket", "waits for a socket"},
    {"sk_stream_wait_*", "socket", "waits for a socket"},
    {"sock_*", "socket", "waits for a socket"},
    {"*skb_wait_for_more_packets", "socket", "waits for a socket"},
    {"__skb_recv_*", "socket", "waits for a socket"},
    {"skb_recv_*", "socket", "waits for a socket"},
    {"__sys_recv*", "socket", "waits for a socket"},
    {"__sys_send*", "socket", "waits for a socket"},
    {"__sys_accept*", "socket", "waits for a connection"},
    {"__sys_connect*", "socket", "waits until it is connected"},

    {"poll_schedule_timeout*", "poll", "waits for events"},
    {"do_poll*", "poll", "waits for events"},
    {"do_sys_poll", "poll", "waits for events"},
    {"do_select", "poll", "waits for events"},
    {"core_sys_select", "poll", "waits for events"},
    {"ep_poll*", "poll", "waits for events"},
    {"do_epoll_wait", "poll", "waits for events"},
    {"do_epoll_pwait*", "poll", "waits for events"},
    {"eventfd_read", "poll", "waits for an event"},
    {"timerfd_read*", "poll", "waits for a timer"},
    {"io_cqring_wait*", "poll", "waits for events"},
    {"read_events", "poll", "waits for events"},
    {"inotify_read", "poll", "waits for events"},

    {"binder_*", "binder", "waits for binder"},

    {"do_wait", "child", "waits for a child process"},
    {"__do_wait", "child", "waits for a child process"},
    {"do_wait4", "child", "waits for a child process"},
    {"kernel_wait*", "child", "waits for a child process"},
    {"wait_for_vfork_done", "child", "waits for a child process to start its program"},

    {"hrtimer_nanosleep*", "sleep", "sleeps"},
    {"do_nanosleep", "sleep", "sleeps"},
    {"common_nsleep*", "sleep", "sleeps"},
    {"alarm_timer_nsleep", "sleep", "sleeps"},

    {"sigsuspend", "signal", "waits for a signal"},
    {"do_sigtimedwait*", "signal", "waits for a signal"},
    {"*sys_pause", "signal", "waits for a signal"},
    {"*sys_rt_sigsuspend", "signal", "waits for a signal"},
    {"signalfd_*", "signal", "waits for a signal"},

    {"do_signal_stop", "stopped", "is stopped"},
    {"ptrace_stop*", "stopped", "is stopped by a debugger"},
    {"do_jobctl_trap", "stopped", "is stopped by a debugger"},
    {"do_freezer_trap", "stopped", "is frozen"},
    {"__refrigerator", "stopped", "is frozen"},
    {"ptrace_notify", "stopped", "is stopped by a debugger"},

    {"filemap_fault", "memory", "waits for a page of a mapped file"},
    {"do_swap_page", "memory", "waits for a page from swap"},
    {"swap_*", "memory", "waits for a page from swap"},
    {"shrink_*", "memory", "waits while memory is reclaimed"},
    {"try_to_free_*", "memory", "waits while memory is reclaimed"},
    {"mem_cgroup_*", "memory", "waits at its memory limit"},
    {"__alloc_pages_slowpath*", "memory", "waits for free memory"},
    {"throttle_direct_reclaim", "memory", "waits while memory is reclaimed"},
    {"reclaim_throttle", "memory", "waits while memory is reclaimed"},
    {"handle_userfault", "memory", "waits for a page that a program is to give"},
    {"handle_mm_fault", "memory", "waits for a page"},
    {"exc_page_fault", "memory", "waits for a page"},
    {"asm_exc_page_fault", "memory", "waits for a page"},
    {"do_user_addr_fault", "memory", "waits for a page"},
    {"do_page_fault", "memory", "waits for a page"},
    {"do_mem_abort", "memory", "waits for a page"},
    {"do_translation_fault", "memory", "waits for a page"},
    {"*sys_mmap*", "memory", "waits to map memory"},
    {"*sys_munmap", "memory", "waits to unmap memory"},
    {"*sys_mprotect", "memory", "waits to protect memory"},
    {"*sys_madvise", "memory", "waits to release memory"},
    {"vm_mmap_pgoff", "memory", "waits to map memory"},

    {"jbd2_*", "disk", "waits for the file system's journal"},
    {"f2fs_*_checkpoint*", "disk", "waits for a checkpoint of the file system"},
    {"f2fs_wait_on_*", "disk", "waits for the disk"},
    {"wait_transaction_*", "disk", "waits for the file system's journal"},
    {"blk_*", "disk", "waits for the disk"},
    {"rq_qos_wait", "disk", "waits for the disk"},
    {"wbt_wait", "disk", "waits for the disk"},
    {"submit_bio_wait", "disk", "waits for the disk"},
    {"submit_bh_wait", "disk", "waits for the disk"},
    {"__wait_on_buffer", "disk", "waits for the disk"},
    {"blkdev_*", "disk", "waits for the disk"},
    {"file_write_and_wait_range", "disk", "waits until the disk has its data"},
    {"filemap_fdatawait*", "disk", "waits until the disk has its data"},
    {"__filemap_fdatawait*", "disk", "waits until the disk has its data"},
    {"vfs_fsync*", "disk", "waits until the disk has its data"},
    {"do_fsync", "disk", "waits until the disk has its data"},
    {"ksys_sync*", "disk", "waits until the disk has its data"},
    {"sync_inodes_*", "disk", "waits until the disk has its data"},

    {"filemap_read*", "file-read", "waits for data of a file"},
    {"generic_file_read*", "file-read", "waits for data of a file"},
    {"generic_file_buffered_read", "file-read", "waits for data of a file"},
    {"iterate_dir", "file-read", "waits for the entries of a directory"},
    {"balance_dirty_pages*", "file-write", "waits until written data reach the disk"},
    {"generic_perform_write", "file-write", "waits while it writes to a file"},
    {"generic_file_write*", "file-write", "waits while it writes to a file"},
    {"n_tty_read", "file-read", "waits for a terminal's input"},
    {"tty_*write*", "file-write", "waits while it writes to a terminal"},
    {"n_tty_write", "file-write", "waits while it writes to a terminal"},
    {"fuse_file_read_iter", "file-read", "waits for data of a file"},
    {"fuse_file_write_iter", "file-write", "waits while it writes to a file"},
    {"nfs_file_read", "file-read", "waits for data of a file"},
    {"nfs_file_write", "file-write", "waits while it writes to a file"},
    {"vfs_read*", "file-read", "waits for data of a file"},
    {"ksys_read", "file-read", "waits for data of a file"},
    {"do_sys_open*", "file-read", "waits while it opens a file"},
    {"vfs_write*", "file-write", "waits while it writes to a file"},
    {"ksys_write", "file-write", "waits while it writes to a file"},
};

// How an interrupt enters the kernel from a running thread, on x86-64 and 64-bit ARM.
constexpr std::string_view kInterruptFrames[] = {"asm_sysvec_*",
                                                 "sysvec_*",
                                                 "irqentry_*",
                                                 "asm_common_interrupt",
                                                 "common_interrupt",
                                                 "exit_to_user_mode*",
                                                 "syscall_exit_to_user_mode*",
                                                 "do_notify_resume",
                                                 "ret_to_user",
                                                 "work_pending",
                                                 "el0_irq*",
                                                 "el0t_64_irq*",
                                                 "el0t_32_irq*",
                                                 "el0_interrupt",
                                                 "preempt_schedule_irq",
                                                 "schedule",
                                                 "__schedule",
                                                 "asm_fred_*",
                                                 "fred_*",
                                                 "0xffffffffffffffff"};

bool TakePrefix(std::string_view* text, std::string_view prefix) {
  if (text->size() <= prefix.size() || text->substr(0, prefix.size()) != prefix) return false;
  text->remove_prefix(prefix.size());
  return true;
}

bool TakeSuffix(std::string_view* text, std::string_view suffix) {
  if (text->size() <= suffix.size() || text->substr(text->size() - suffix.size()) != suffix) {
    return false;
  }
  text->remove_suffix(suffix.size());
  return true;
}

// A star stands for any characters.
bool Matches(std::string_view pattern, std::string_view name) {
  const size_t star = pattern.find('*');
  if (star == pattern.npos) return pattern == name;
  if (pattern.substr(0, star) != name.substr(0, star)) return false;
  for (size_t i = star; i <= name.size(); ++i) {
    if (Matches(pattern.substr(star + 1), name.substr(i))) return true;
  }
  return false;
}

const Wait* Find(const Wait* begin, const Wait* end, std::string_view name) {
  const Wait* const found =
      std::find_if(begin, end, [name](const Wait& wait) { return Matches(wait.name, name); });
  return found == end ? nullptr : found;
}

}  // namespace

std::string_view CanonicalWaitName(std::string_view plain) {
  const auto trim = [&plain] {
    while (TakePrefix(&plain, "_")) {
    }
  };
  trim();
  if (TakePrefix(&plain, "GI_")) trim();
  if (TakePrefix(&plain, "interceptor_")) trim();
  TakePrefix(&plain, "libc_");
  trim();
  bool trimmed = true;
  while (trimmed) {
    trimmed = false;
    for (const std::string_view suffix : {"_nocancel", "_cancel", "64", "_time64", "_chk", "_2"}) {
      trimmed = TakeSuffix(&plain, suffix) || trimmed;
    }
  }
  return plain;
}

const Wait* FindUserWait(std::string_view plain) {
  return Find(std::begin(kUserWaits), std::end(kUserWaits), CanonicalWaitName(plain));
}

const Wait* FindKernelWait(std::string_view function) {
  return Find(std::begin(kKernelWaits), std::end(kKernelWaits), function);
}

bool IsInterruptFrame(std::string_view function) {
  return std::any_of(std::begin(kInterruptFrames), std::end(kInterruptFrames),
                     [function](std::string_view pattern) { return Matches(pattern, function); });
}

}  // namespace report
