// Where a path of the device lies on this machine: on a device, there. The host layer has a header
// of this name that puts the path under its root.
#ifndef QUORVEL_DEVICE_PATH_H_
#define QUORVEL_DEVICE_PATH_H_

#include <string>

inline std::string DevicePath(const char* path) {
  return path;
}

#endif  // QUORVEL_DEVICE_PATH_H_
