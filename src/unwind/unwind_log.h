// The tag of everything that the unwinder writes to the Android log.
#ifndef QUORVEL_UNWIND_UNWIND_LOG_H_
#define QUORVEL_UNWIND_UNWIND_LOG_H_

constexpr char kUnwindLogTag[] = "unwindstack_wrapper";

#endif  // QUORVEL_UNWIND_UNWIND_LOG_H_
