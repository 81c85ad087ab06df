// The signal by which the unwinder stops a thread.
#ifndef QUORVEL_UNWIND_UNWIND_SIGNAL_H_
#define QUORVEL_UNWIND_UNWIND_SIGNAL_H_

// The kernel's __SIGRTMIN + 1, which the platform keeps for backtraces. Its own backtracer is,
// during an exchange, what a second copy of this library would be.
constexpr int kUnwindSignal = 33;

#endif  // QUORVEL_UNWIND_UNWIND_SIGNAL_H_
