#include <device_path.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "standard_error.h"

namespace {

constexpr size_t kMaxLine = 1000;  // of a message, so that it goes out in one piece

void SayNotAbsolute(const char* variable) {
  std::string line = std::string("quorvel: QUORVEL_HOST_ROOT is not an absolute path: ") + variable;
  line = line.substr(0, kMaxLine) + "; the real root is used\n";
  struct iovec part = {&line[0], line.size()};
  WriteToStandardError(&part, 1, true);
}

// The root without slashes at its end; empty for the real root. Never destroyed, as the monitor
// thread may need it while exit handlers run.
const std::string& Root() {
  static const std::string& root = *[] {
    auto* value = new std::string;
    const char* variable = secure_getenv("QUORVEL_HOST_ROOT");
    if (variable == nullptr || variable[0] == '\0') return value;
    if (variable[0] != '/') {
      SayNotAbsolute(variable);
      return value;
    }
    *value = variable;
    while (!value->empty() && value->back() == '/') value->pop_back();
    return value;
  }();
  return root;
}

// The root as the kernel reports paths: with every symbolic link resolved. Not kept: the lock of a
// static's first use could stay locked in the child of a fork.
std::string ResolvedRoot() {
  char resolved[PATH_MAX];
  const bool found = !Root().empty() && realpath(Root().c_str(), resolved) != nullptr;
  return found && strcmp(resolved, "/") != 0 ? resolved : "";
}

}  // namespace

std::string DevicePath(const char* path) {
  return Root() + path;
}

std::string PathOnDevice(const std::string& path) {
  const std::string root = ResolvedRoot();
  const bool under = !root.empty() && path.compare(0, root.size(), root) == 0 &&
                     path.size() > root.size() && path[root.size()] == '/';
  return under ? path.substr(root.size()) : path;
}
