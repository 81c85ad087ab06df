// What the platform's hang-event library, libkelvane.so, offers; no public header declares it. The
// host layer defines the same names.
#ifndef QUORVEL_KELVANE_H_
#define QUORVEL_KELVANE_H_

extern "C" {

// Copies the kernel stack of a thread of this process as NUL-terminated text into buffer, which
// must have 4096 bytes. 0 on success, anything else on failure.
int DravikGetStack(int tid, char* buffer);

// Copies the configuration of event id as NUL-terminated text into buffer. 0 on success.
int dravik_get_config(int id, char* buffer, int size);

// Reports a hang event. command tells the service what else to save; may be empty.
int dravik_send_event(int id, const char* command, const char* message);

}  // extern "C"

#endif  // QUORVEL_KELVANE_H_
