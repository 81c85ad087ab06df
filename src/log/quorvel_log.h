// The incident's line buffer: all text of an incident but the user stacks passes through it on its
// way to the log file. The room owns three pieces of state:
//
//     LogBuffer   text of the current section, NUL-terminated, at most 4095 characters
//     LogFd       descriptor of the incident's open file, negative when there is none
//     LogFlags    flags of the watch whose incident this is; kept until the next incident
//
// Threads: one incident at a time, on the monitor thread, without a lock. QuorvelPrintLine is also
// the clients': they may call it from any thread while no incident is being written, so LogFd and
// LogFlags are atomics.
#ifndef QUORVEL_LOG_QUORVEL_LOG_H_
#define QUORVEL_LOG_QUORVEL_LOG_H_

#include <stddef.h>

constexpr size_t kLogBufferSize = 4096;
constexpr size_t kLogBufferRoom = kLogBufferSize - 1;

// Begins an incident: records the flags and clears the buffer. Does not touch the descriptor.
void QuorvelBeginLog(int flags);

// Makes fd the incident's file (-1: none). The caller has closed the one before.
void QuorvelSetLogFd(int fd);
int QuorvelGetLogFd();
int QuorvelGetLogFlags();

// Sets the whole buffer to zero.
void QuorvelClearLog();

const char* QuorvelLogText();
size_t QuorvelLogLength();

// Appends at most count characters of text; no more than kLogBufferRoom - QuorvelLogLength() may be
// asked for. The result of strncat_s: 0 on success.
int QuorvelAppendLog(const char* text, size_t count);

// Writes the buffer's text to the file in one write, repeated only while it fails with EINTR. Any
// other failure and a short count are let be. The buffer keeps its text.
void QuorvelFlushLog();

// In the child of a fork: closes its copy of the parent's incident file.
void QuorvelDropLogAfterFork();

#endif  // QUORVEL_LOG_QUORVEL_LOG_H_
