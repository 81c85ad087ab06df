// Whatever a property's file holds, its readers get a short text, or nothing. The files lie in a
// device root: scripts/fuzz gives one.

#include <android-base/properties.h>
#include <cutils/trace.h>
#include <fcntl.h>
#include <kelvane.h>
#include <sys/stat.h>
#include <sys/system_properties.h>
#include <unistd.h>

#include "fuzz.h"

namespace {

void WriteProperty(const std::string& name, const std::string& content) {
  static const std::string dev = std::string(getenv("QUORVEL_HOST_ROOT")) + "/dev";
  static const std::string store = dev + "/__properties__/";
  mkdir(dev.c_str(), 0700);
  mkdir(store.c_str(), 0700);
  const int fd = open((store + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  CLAIM(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
  close(fd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string content(reinterpret_cast<const char*>(data), size);
  WriteProperty("dravik.event.12.config", content);
  WriteProperty("debug.atrace.tags.enableflags", content);
  char value[PROP_VALUE_MAX], config[8];
  memset(value, 'x', sizeof(value));
  const int length = __system_property_get("dravik.event.12.config", value);
  CLAIM(length >= 0 && length < PROP_VALUE_MAX && strlen(value) == static_cast<size_t>(length));
  CLAIM(content.compare(0, strlen(value), value) == 0);
  CLAIM(android::base::GetProperty("dravik.event.12.config", "-") == (length > 0 ? value : "-"));
  CLAIM((dravik_get_config(12, config, sizeof(config)) == 0) == (length > 0 && length < 8));
  atrace_get_enabled_tags();

  const std::string text = content.c_str();
  const bool set = __system_property_set("fuzz.set", text.c_str()) == 0;
  CLAIM(set == (text.size() < PROP_VALUE_MAX));
  if (set && (text.empty() || text.back() != '\n')) {
    CLAIM(android::base::GetProperty("fuzz.set", "") == text);
  }
  return 0;
}
