// Standard error as the log writes to it: never at the expense of the host process, which owns it.
#ifndef QUORVEL_HOST_STANDARD_ERROR_H_
#define QUORVEL_HOST_STANDARD_ERROR_H_

#include <limits.h>
#include <stddef.h>
#include <sys/uio.h>

// What the kernel writes to a pipe in one piece, so that writers do not mix.
constexpr size_t kMaxPiece = PIPE_BUF;

// Writes one piece to descriptor 2 and returns how many of its bytes were written.
//   parts, count  the piece, at most kMaxPiece bytes; its elements are changed
//   may_wait      whether to wait for a reader that does not read: at most 100 ms for a piece, one
//                 second for several in a row, and a tenth of the time from then on
//
// Nothing is written unless the descriptor is what it was when the library was loaded, or has
// become a terminal, a pipe, another character device or a file opened for appending: its number
// may have passed to a file or socket of the host. No signal is raised, none that was pending is
// discarded, and the descriptor's flags stay as they are, as other processes share them.
//
// Any thread and any signal handler; locks nothing, allocates nothing, is no cancellation point.
// Changes errno.
size_t WriteToStandardError(struct iovec* parts, int count, bool may_wait);

#endif  // QUORVEL_HOST_STANDARD_ERROR_H_
