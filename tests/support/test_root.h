// Every test process has a device root of its own, made before anything else and removed at its
// end, unless that is a crash. A QUORVEL_HOST_ROOT that is set already is left alone, but for that
// of a test which runs this program as its child.
#ifndef QUORVEL_TESTS_SUPPORT_TEST_ROOT_H_
#define QUORVEL_TESTS_SUPPORT_TEST_ROOT_H_

#include <string>
#include <vector>

namespace test_root {

inline constexpr char kLogDir[] = "/data/log/reliability/quorvel/";

// The device path as a path of this machine.
std::string Path(const std::string& device_path);

// Sets a system property, read-only ones too; its value, empty when unset.
void SetProperty(const std::string& name, const std::string& value);
std::string PropertyText(const std::string& name);

// Makes a directory of the device and all above it, or empties it; removes whatever stands there.
void MakeEmptyDir(const std::string& device_path);
void RemoveTree(const std::string& device_path);

// Makes those anew that the library uses.
void MakeEmptyDirs();

// Names in a directory, in byte order, but for "." and "..".
std::vector<std::string> List(const std::string& device_path);

std::string ReadFile(const std::string& machine_path);
void WriteFile(const std::string& machine_path, const std::string& content);

}  // namespace test_root

#endif  // QUORVEL_TESTS_SUPPORT_TEST_ROOT_H_
