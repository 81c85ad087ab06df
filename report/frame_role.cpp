#include "frame_role.h"

#include <algorithm>

#include "function_name.h"
#include "reason_table.h"

namespace report {
namespace {

constexpr std::string_view kDeleted = " (deleted)";

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// Libraries whose unnamed functions are machinery, too.
constexpr std::string_view kSystemLibraries[] = {
    "libc.so", "libc-",     "libc.musl", "libpthread", "ld-",     "ld.so",    "linker",
    "libm.so", "libdl",     "librt",     "libstdc++",  "libc++",  "libgcc_s", "libunwind",
    "libart.", "libbinder", "libasan",   "libtsan",    "libubsan"};

// What starts threads, forwards calls and buffers files. A trailing star: all names that begin so.
constexpr std::string_view kPlumbing[] = {"start_thread",
                                          "thread_start",
                                          "clone",
                                          "clone3",
                                          "__clone",
                                          "__clone3",
                                          "__start_thread",
                                          "__pthread_start",
                                          "_start",
                                          "__libc_init",
                                          "__libc_start_main*",
                                          "__libc_start_call_main*",
                                          "execute_native_thread_routine*",
                                          "std::*",
                                          "__gnu_cxx::*",
                                          "__gthread_*",
                                          "_IO_*",
                                          "__kernel_*",
                                          "__restore_rt",
                                          "__vdso_*",
                                          "_dl_runtime_resolve*",
                                          "__interceptor_*",
                                          "asan_thread_start",
                                          "__tsan_*",
                                          "boost::detail::*",
                                          "_DYNAMIC"};

bool IsPlumbing(std::string_view name) {
  return std::any_of(std::begin(kPlumbing), std::end(kPlumbing), [name](std::string_view entry) {
    const bool prefix = entry.back() == '*';
    if (prefix) entry.remove_suffix(1);
    return prefix ? StartsWith(name, entry) : name == entry;
  });
}

}  // namespace

std::string MapName(std::string_view map) {
  if (StartsWith(map, "<anonymous")) return "anonymous";
  if (map == "<unknown>") return "unknown";
  if (StartsWith(map, "[") && map.back() == ']') return std::string(map.substr(1, map.size() - 2));
  if (map.size() > kDeleted.size() && map.substr(map.size() - kDeleted.size()) == kDeleted) {
    map.remove_suffix(kDeleted.size());
  }
  return std::string(map.substr(map.rfind('/') + 1));
}

bool IsSystemMap(std::string_view map) {
  const std::string name = MapName(map);
  if (name == "vdso" || name == "vsyscall") return true;
  return std::any_of(std::begin(kSystemLibraries), std::end(kSystemLibraries),
                     [&name](std::string_view library) { return StartsWith(name, library); });
}

Role RoleOf(std::string_view function, std::string_view plain) {
  if (FindUserWait(plain) != nullptr) return Role::kWaiting;
  return IsForwarder(function) || IsPlumbing(plain) ? Role::kPlumbing : Role::kOwn;
}

bool IsTelling(Role role, std::string_view plain) {
  return role != Role::kWaiting && !IsPlumbing(plain);
}

}  // namespace report
