// The line buffer of the incident log. All text of an incident except the user stacks passes
// through it on its way to the file. Its state:
//
//     LogBuffer   text of the current section, NUL-terminated, at most 4095 characters
//     LogFd       descriptor of the incident's open file, negative when there is none
//     LogFlags    flags of the watch whose incident this is, kept until the next incident
//
// Only the monitor thread calls these functions, for one incident at a time, without a lock. The
// exported QuorvelPrintLine is called on any thread, which finds out by LogFd and LogFlags whether
// an incident is open: therefore both are atomic. While one is open only the monitor thread may
// call it, in the incident's callback; a line from another thread may be lost or mixed with others.
#ifndef QUORVEL_LOG_QUORVEL_LOG_H_
#define QUORVEL_LOG_QUORVEL_LOG_H_

#include <stddef.h>

constexpr size_t kLogBufferSize = 4096;
constexpr size_t kLogBufferRoom = kLogBufferSize - 1;  // without the NUL

// Begins an incident: records the flags and clears the buffer. Does not touch the descriptor.
void QuorvelBeginLog(int flags);

// Makes fd the incident's file; -1 for none. The caller has closed the previous one.
void QuorvelSetLogFd(int fd);
int QuorvelGetLogFd();
int QuorvelGetLogFlags();

// Sets the whole buffer to zero.
void QuorvelClearLog();

const char* QuorvelLogText();
size_t QuorvelLogLength();

// Appends at most count characters of text. count must not exceed kLogBufferRoom -
// QuorvelLogLength(). Returns the result of strncat_s: 0 on success.
int QuorvelAppendLog(const char* text, size_t count);

// Writes the buffer's text to the file in one write, which is retried only on EINTR; any other
// failure and a short count are ignored. The buffer keeps its text.
void QuorvelFlushLog();

// In the child of a fork: closes the copy of the parent's incident file.
void QuorvelDropLogInChild();

#endif  // QUORVEL_LOG_QUORVEL_LOG_H_
