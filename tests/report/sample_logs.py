"""Incident logs, made up line by line as the library writes them. A function that begins with
"libc:" is one of the C library's, any other the service's own."""

import time

LIBC = "/usr/lib/x86_64-linux-gnu/libc.so.6"
SERVICE = "/vendor/bin/bank_service"
START = ["libc:start_thread", "libc:clone3"]
FUTEX = ["futex_wait_queue", "futex_wait", "do_futex", "__x64_sys_futex", "do_syscall_64"]
SOCKET = ["unix_stream_read_generic", "sock_recvmsg", "sock_read_iter", "vfs_read", "ksys_read"]
FIRST_MS = 1795382025000


def header(tid=100, watch="transfer-money", program="bank_service", ms=FIRST_MS, utc_offset=0):
    def when(seconds):
        return time.asctime(time.gmtime(seconds + utc_offset))
    return (f"{when(ms // 1000)}\ntimeout tid: {tid}\ntimeout function: {watch}\n"
            f"time start: {when(ms // 1000 - 3)}\nBuild fingerprint: demo/demo/demo:12/1\n"
            f">>> {program} <<<\n")


def kernel(tid, *functions):
    """The section of a kernel stack."""
    lines = [f"[<0>] {function}+0x64/0x90\n" for function in functions]
    return f"\nkernel stack tid = {tid}\n" + "".join(lines)


def user(tid, *functions):
    """The section of a user stack."""
    text = f"\ntid = {tid}\n"
    for number, function in enumerate(functions):
        name = function.removeprefix("libc:")
        module = SERVICE if name == function else LIBC
        pc = 0x1000 + 16 * sum(map(ord, name))
        text += f"  #{number:02} pc {pc:016x}  {module} ({name}+45)\n"
    return text


def log_text(threads, **facts):
    """threads: {id: (user stack, kernel stack)}, the watched one first."""
    kernels = [kernel(tid, *functions) for tid, (_, functions) in threads.items()]
    users = [user(tid, *functions) for tid, (functions, _) in threads.items()]
    return header(next(iter(threads)), **facts) + "".join(kernels + users)


def mutex_wait(*functions):
    return ["libc:__lll_lock_wait", "libc:pthread_mutex_lock", *functions, *START], FUTEX


def idle(*functions):
    return ["libc:pthread_cond_wait", *(functions or ["take_job"]), *START], FUTEX


def socket_read(*functions):
    return ["libc:read", *functions, *START], SOCKET


def deadlock():
    """Two threads hold each other's mutex; 57 idle; one of the same pool reads from a socket."""
    threads = {15634: mutex_wait("lock_account_b", "transfer_a_to_b"),
               15635: mutex_wait("lock_account_a", "transfer_b_to_a"),
               15700: socket_read("read_header", "serve")}
    threads.update({15800 + i: idle() for i in range(57)})
    return threads
