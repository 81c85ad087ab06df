"""Incident logs, made up line by line as the library writes them."""

import time

LIBC = "/usr/lib/x86_64-linux-gnu/libc.so.6"
SERVICE = "/vendor/bin/bank_service"
START = [(LIBC, "start_thread"), (LIBC, "clone3")]
FUTEX = ["futex_wait_queue", "futex_wait", "do_futex", "__x64_sys_futex", "do_syscall_64"]
SOCKET = ["unix_stream_read_generic", "sock_recvmsg", "sock_read_iter", "vfs_read", "ksys_read"]
FIRST_MS = 1795382025000


def own(*functions):
    return [(SERVICE, function) for function in functions]


def mutex_wait(*functions):
    waiting = [(LIBC, "__lll_lock_wait"), (LIBC, "pthread_mutex_lock")]
    return waiting + own(*functions) + START, FUTEX


def idle(*functions):
    return [(LIBC, "pthread_cond_wait")] + own(*functions or ("take_job",)) + START, FUTEX


def socket_read(*functions):
    return [(LIBC, "read")] + own(*functions) + START, SOCKET


def log_text(threads, watch="transfer-money", program="bank_service", ms=FIRST_MS, utc_offset=0):
    """threads: {id: (user frames, kernel functions)}, the watched one first."""
    def when(seconds):
        return time.asctime(time.gmtime(seconds + utc_offset))
    tid = next(iter(threads))
    lines = [when(ms // 1000), f"timeout tid: {tid}", f"timeout function: {watch}",
             f"time start: {when(ms // 1000 - 3)}", "Build fingerprint: demo/demo/demo:12/1",
             f">>> {program} <<<"]
    for thread, (_, kernel) in threads.items():
        lines += ["", f"kernel stack tid = {thread}"]
        lines += [f"[<0>] {function}+0x64/0x90" for function in kernel]
    for thread, (user, _) in threads.items():
        lines += ["", f"tid = {thread}"]
        lines += [f"  #{number:02} pc {0x1000 + 16 * sum(map(ord, function)):016x}  {module} ({function}+45)"
                  for number, (module, function) in enumerate(user)]
    return "\n".join(lines) + "\n"


def deadlock():
    """Two threads hold each other's mutex; 57 idle; one of the same pool reads from a socket."""
    threads = {15634: mutex_wait("lock_account_b", "transfer_a_to_b"),
               15635: mutex_wait("lock_account_a", "transfer_b_to_a"),
               15700: socket_read("read_header", "serve")}
    threads.update({15800 + i: idle() for i in range(57)})
    return threads
