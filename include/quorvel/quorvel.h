/*
 * libquorvel: a watchdog inside your process.
 *
 * Bracket work that must not hang with a watch. If a watch is still armed at its deadline, the
 * library's monitor thread writes an incident log, calls your callback, reports a hang event and,
 * if you asked for it, ends the process.
 *
 *     static void on_hang(void* arg) { ((struct service*)arg)->hung = 1; }
 *
 *     quorvel_init();                                            // once, at start-up
 *     uint32_t id = __quorvel_start_ex("flush-db", 10, on_hang, &service,
 *                                      QUORVEL_FLAG_LOG | QUORVEL_FLAG_BACKTRACE);
 *     flush_db();                                                // must not take 10 seconds
 *     quorvel_end(id);
 *
 * Conventions of this header (C99 and C++):
 *   - Every call may be made from any thread, any number of times, in any order. No call throws.
 *   - None of them is async-signal-safe: do not call them from a signal handler.
 *   - Problems are reported by the result and, where a call's comment says so, by a line in the
 *     Android log under the tag "QUORVEL".
 *   - Cost: a start and an end allocate nothing, open nothing, and hold a mutex for a constant-time
 *     list operation; an update does too. Each takes well under a microsecond while no other thread
 *     holds the mutex and the monitor is ticking. With nothing armed for three seconds the monitor
 *     waits: the next start wakes it, a system call that takes some microseconds.
 *   - fork: the child has no monitor thread and no watches. There the watch calls refuse until the
 *     child calls quorvel_init itself, which gives it a registry, a monitor and a rate limit of its
 *     own; ids of the parent mean nothing in it. An incident that was open at the fork stays the
 *     parent's. quorvel_init may also be called in a fork handler, even one registered before the
 *     library's own (the first quorvel_init registers that one). In such an early handler call
 *     quorvel_init before any start, update or end: until then the library does not know that it is
 *     in a child, and the call could wait for ever for a mutex that a thread of the parent held.
 *     exec needs no care: all descriptors are close-on-exec.
 *   - dlclose: the library stays loaded once it has been loaded.
 *
 * Not supported: more than 128 armed watches at once, deadlines finer than a second, stopping the
 * monitor thread, more than one callback at a time.
 */
#ifndef QUORVEL_QUORVEL_H_
#define QUORVEL_QUORVEL_H_

#include <quorvel/version.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__) || defined(__clang__)
#define QUORVEL_EXPORT __attribute__((visibility("default")))
#define QUORVEL_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define QUORVEL_EXPORT
#define QUORVEL_PRINTF(fmt, args)
#endif

/* The id that no watch ever has: what a refused start or update returns. */
#define QUORVEL_INVALID_ID UINT32_C(0xFFFFFFFF)

/*
 * Start flags, to be or-ed together. Other bits have no effect.
 *
 * Rate limit: watches with LOG or BACKTRACE share one for the whole process. An incident
 * that comes more than 60 seconds after the last period began (the first always does) opens a new
 * period and goes through. Within periods five more go through in the life of the process; all
 * others are dropped. One that is dropped is announced in the
 * Android log and has nothing else: no file, no callback, no stacks, no hang event, no exit.
 *
 * BACKTRACE stops each thread for as long as its stack is read, by signal 33. What it interrupts,
 * in all threads of the process, are calls that the kernel does not restart after a signal handler:
 * they fail with EINTR or return early.
 *   - sleeps: nanosleep, clock_nanosleep, usleep, sleep
 *   - polls: poll, select, epoll_wait and their variants
 *   - waits with a time limit or for a signal: semtimedop, semop, msgrcv, msgsnd, sigtimedwait,
 *     sigwaitinfo, sigsuspend, pause, io_getevents
 *   - socket calls on a socket with a timeout (SO_RCVTIMEO, SO_SNDTIMEO)
 *   - a blocking write or send that had moved some bytes returns how many
 * A thread that does not answer the signal costs the monitor five seconds (on a device up to ten if
 * it is inside the allocator): one that blocks signal 33, is stopped, has called pthread_exit as
 * the first thread of its process, was made by a bare clone and shares another's thread-local
 * storage, or is a worker that the kernel made for io_uring.
 */

/* Writes the incident into a log file of its own. */
#define QUORVEL_FLAG_LOG UINT32_C(1)

/*
 * Kernel and user stacks of every thread, those of the watch's thread first. With LOG the file gets
 * all of them, and the Android log gets the user stacks and the kernel stack of the watch's thread,
 * which it cuts at 1023 characters. Without LOG, or where the file could not be opened, the Android
 * log gets that one kernel stack, and there are no user stacks.
 */
#define QUORVEL_FLAG_BACKTRACE UINT32_C(2)

/*
 * After its incident the process ends with _exit(1), unless the recovery switch or the recovery
 * limit forbids it. Together with LOG or BACKTRACE an incident that the rate limit drops does not
 * end the process: it goes on, hung. To have it end all the same, start a second watch over the
 * same work, after the first and with this flag alone: that one is not rate-limited.
 */
#define QUORVEL_FLAG_RECOVERY UINT32_C(4)

/* The hang event asks for a copy of the system trace. */
#define QUORVEL_FLAG_SYSTRACE UINT32_C(8)

/*
 * Called when a watch has expired, with the arg of its start call.
 *
 * Runs on the library's monitor thread, after the incident's header has been written and before the
 * stacks are; no lock of the library is held, so it may start, update and end watches (the expired
 * watch itself is already gone: its id is refused). While it runs no other watch can fire: a
 * callback that blocks stops the monitor. It must return normally: no exception, no pthread_exit.
 *
 * Signals: that thread blocks all but those that a fault raises (SIGSEGV, SIGBUS, SIGILL, SIGFPE,
 * SIGTRAP, SIGSYS) and those that the C library keeps for itself (32 and 33), and so do threads
 * and programs that the callback starts, unless they reset their mask.
 *
 * fork: the child of a callback that forks is no monitor. When the callback returns in it, its
 * thread ends; where the child has no other, but for a monitor of its own, it ends with _exit(0).
 */
typedef void (*QuorvelCallback)(void* arg);

/*
 * Makes the library ready: the first call builds the registry of watches and starts the monitor
 * thread (named "quorvel"). Later calls only look again where the executable lies: one whose path
 * begins with "/vendor" uses the vendor log directory and the vendor recovery properties.
 *
 * Call it from an ordinary thread before the first start. The monitor thread takes no signal that
 * is meant for your process, whatever mask the caller has. If the thread cannot be created,
 * "pthread_create return fail, QuorvelManagerInit" is logged, the watch calls keep refusing, and
 * the next quorvel_init tries again.
 */
QUORVEL_EXPORT void quorvel_init(void);

/*
 * Arms a watch for the calling thread.
 *
 *   name      what is being watched, for the incident's header; may be NULL. Only the pointer is
 *             kept: the text must stay alive and unchanged until the watch has been ended in time
 *             or, once it has expired, until its response is over, which may be long after its
 *             end when other responses come first. So use a string literal. A name that makes its
 *             header line longer than 1023 characters is left out of the header.
 *   timeout   seconds, 1 to 60. The watch fires between timeout and timeout + 1 seconds from now
 *             (later while the monitor is busy with another response).
 *   callback  called when the watch expires; may be NULL.
 *   arg       handed to the callback; the library never looks at it.
 *   flags     QUORVEL_FLAG_* or-ed together, or 0.
 *
 * Returns the watch's id (0 is a valid id), to be given to quorvel_end when the work is done.
 * Returns QUORVEL_INVALID_ID, without a message, before quorvel_init and for a timeout outside
 * 1 to 60; and with "No free quorvel node" in the log while 128 watches are armed.
 */
QUORVEL_EXPORT uint32_t __quorvel_start_ex(const char* name, int32_t timeout,
                                           QuorvelCallback callback, void* arg, uint32_t flags);

/*
 * Moves the deadline of an armed watch to timeout seconds from now. Any thread may do it.
 *
 *   id        as returned by the start call.
 *   timeout   seconds from now. 1 to 60 as at the start; 61 to 63 give that many seconds. The
 *             library does not refuse others: 0 and multiples of 64 fire at the monitor's next
 *             tick, larger values wrap around at 64 seconds (70 acts as 6).
 *
 * Returns id, or QUORVEL_INVALID_ID without a message, leaving everything as it was: before
 * quorvel_init; for an id that is not armed (ended, expired, never given out); for a negative
 * timeout and for one so large that it overflows the 32-bit deadline.
 */
QUORVEL_EXPORT uint32_t quorvel_update(uint32_t id, int32_t timeout);

/*
 * Ends a watch: it will not fire. Any thread may do it.
 *
 * An id that is not armed is left alone and logged: "quorvel_end: alrealy release id 0x... ?" for
 * one that was ended or has expired, "quorvel_end: not valid id 0x..." for one that no watch can
 * have (QUORVEL_INVALID_ID among them). Before quorvel_init nothing happens.
 *
 * When this returns the watch's callback either has not been and will not be called, or the watch
 * had expired before: then the callback may be running, or still to run, on the monitor thread.
 * Keep what arg points to alive accordingly.
 */
QUORVEL_EXPORT void quorvel_end(uint32_t id);

/*
 * Blocks the calling thread for about the given number of seconds on the boot-time clock, which
 * goes on while the device is suspended. Returns up to 100 milliseconds early; 0 returns at once.
 * Signals do not shorten it. Independent of all the rest: needs no quorvel_init.
 */
QUORVEL_EXPORT void quorvel_clock_sleep(unsigned long seconds);

/*
 * Prints one line, printf-style, to the Android log (warning priority, tag "QUORVEL") and, while an
 * incident log is open, appends it to the incident's buffer. The buffer is written out after the
 * header and with each kernel stack, and cleared before each: what a callback prints is cleared
 * unwritten, so it is in the Android log, not in the file.
 *
 *   fmt       printf format; NULL does nothing. The formatted line must be 2 to 1022 characters
 *             long, with or without a newline at its end (one is added in the file if it has none).
 *             Shorter lines and one of exactly 1023 characters are dropped silently; longer ones
 *             with "QuorvelPrintLine: cannot vsnprintf ..." in the log. A line is never truncated.
 *
 * While an incident is being written only its callback may call this; at other times any thread
 * may. Never does file I/O of its own, never allocates.
 */
QUORVEL_EXPORT void QuorvelPrintLine(const char* fmt, ...) QUORVEL_PRINTF(1, 2);

#ifdef __cplusplus
}
#endif

#endif /* QUORVEL_QUORVEL_H_ */
