#include "support/test_root.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#if defined(__SANITIZE_THREAD__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace fs = std::filesystem;

namespace test_root {

std::string Path(const std::string& device_path) {
  return getenv("QUORVEL_HOST_ROOT") + device_path;
}

void SetProperty(const std::string& name, const std::string& value) {
  WriteFile(Path("/dev/__properties__/" + name), value);
}

std::string PropertyText(const std::string& name) {
  return ReadFile(Path("/dev/__properties__/" + name));
}

void MakeEmptyDir(const std::string& device_path) {
  RemoveTree(device_path);
  fs::create_directories(Path(device_path));
}

void MakeEmptyDirs() {
  for (const char* dir :
       {kLogDir, "/data/log/dravik/", "/dev/__properties__/", "/sys/kernel/tracing/"}) {
    MakeEmptyDir(dir);
  }
}

void RemoveTree(const std::string& device_path) {
  std::string path = Path(device_path);
  while (path.back() == '/') path.pop_back();
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

std::vector<std::string> List(const std::string& device_path) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(Path(device_path))) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string ReadFile(const std::string& machine_path) {
  std::ifstream in(machine_path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void WriteFile(const std::string& machine_path, const std::string& content) {
  std::ofstream(machine_path, std::ios::binary) << content;
}

// The words that start this program anew: the kernel alone cannot where it is emulated.
static std::vector<std::string> OwnWords() {
  std::vector<std::string> words;
  std::istringstream emulator(TEST_EMULATOR);
  for (std::string word; std::getline(emulator, word, '|');) words.push_back(word);
  words.push_back(fs::read_symlink("/proc/self/exe"));
  return words;
}

}  // namespace test_root

// The library reads its root and the time zone before main runs, so they have to be there earlier
// still. The C++ library is ready by then; the objects of this program are not.
static bool g_own_root;
__attribute__((constructor(101))) static void EnterOwnRoot() {
  constexpr char kMark[] = "/.made-by-a-test";
  setenv("TZ", "QVT-5:30", 1);  // local time is told from UTC
  const char* given = getenv("QUORVEL_HOST_ROOT");
  if (given != nullptr && fs::exists(std::string(given) + kMark)) return;
  std::string root = fs::temp_directory_path() / "quorvel-test-XXXXXX";
  if (mkdtemp(&root[0]) == nullptr) _exit((perror("mkdtemp"), 1));
  g_own_root = setenv("QUORVEL_HOST_ROOT", root.c_str(), 1) == 0;
  test_root::MakeEmptyDirs();
  test_root::WriteFile(root + kMark, "");
}

int main(int argc, char** argv) {
#if defined(__SANITIZE_THREAD__)
  // The sanitizer's own threads take the unwinder's signal like any other, without the state that
  // instrumented code needs: they have to go. The last comes with the first thread of the process.
  std::thread([] {}).join();
  __sanitizer_sandbox_arguments nothing_to_keep = {};
  __sanitizer_sandbox_on_notify(&nothing_to_keep);
  while (std::distance(fs::directory_iterator("/proc/self/task"), {}) > 1) usleep(1000);
#endif
  testing::InitGoogleTest(&argc, argv);
  if (*TEST_EMULATOR != '\0') testing::internal::SetInjectableArgvs(test_root::OwnWords());
  int result = 1;
  // Of a thread whose id is not the process's, so that a mix-up of the two shows.
  std::thread([&result] { result = RUN_ALL_TESTS(); }).join();
  if (g_own_root) test_root::RemoveTree("/");
  return testing::UnitTest::GetInstance()->test_to_run_count() > 0 ? result : 1;
}
