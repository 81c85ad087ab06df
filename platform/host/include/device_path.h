// Where a path of the device lies on this machine: under the directory that the environment
// variable QUORVEL_HOST_ROOT names.
//
// The variable is read once per process, and not at all in a set-user-id process. Unset or empty:
// the real root. Not an absolute path: one line to stderr, and it counts as unset.
#ifndef QUORVEL_HOST_DEVICE_PATH_H_
#define QUORVEL_HOST_DEVICE_PATH_H_

#include <string>

std::string DevicePath(const char* path);

// The reverse for a path of this machine: as the device sees it. One that does not lie under the
// root stays as it is.
std::string PathOnDevice(const std::string& path);

#endif  // QUORVEL_HOST_DEVICE_PATH_H_
