// Where a path of the device lies on this machine: on a device, it is the path itself. The host
// layer's header of this name puts the path under its root.
#ifndef QUORVEL_DEVICE_PATH_H_
#define QUORVEL_DEVICE_PATH_H_

#include <string>

inline std::string DevicePath(const char* path) {
  return path;
}

#endif  // QUORVEL_DEVICE_PATH_H_
