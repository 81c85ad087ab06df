// The header of an incident: when it was written, which watch expired, on which build, in which
// process.
#ifndef QUORVEL_LOG_INCIDENT_HEADER_H_
#define QUORVEL_LOG_INCIDENT_HEADER_H_

// Prints the header through QuorvelPrintLine; the next flush writes it to the file.
//   tid    thread that started the watch
//   name   the watch's name, or null for no such line
//   start  wall-clock second of the start call
// Monitor thread only, after QuorvelInitLog.
void QuorvelInsertLogTitle(int tid, const char* name, long start);

#endif  // QUORVEL_LOG_INCIDENT_HEADER_H_
