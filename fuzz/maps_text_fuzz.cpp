// A list of mappings that is any text: what is read of it is in order and lies within the text.

#include "fuzz.h"
#include "process_maps.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr size_t kCapacity = 64;
  unwindstack::Mapping entries[kCapacity + 1] = {};
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const size_t count = unwindstack::ParseMapsText(text, entries, kCapacity);
  CLAIM(count <= kCapacity && entries[kCapacity].end == 0);
  for (size_t i = 0; i < count; ++i) {
    const auto& [start, end, offset, inode, major, minor, prot, name, kept] = entries[i];
    CLAIM(start < end && (i == 0 || start >= entries[i - 1].end) && (prot & ~7) == 0);
    if (name.empty()) continue;
    CLAIM(name.data() >= text.data() && name.find('\n') == name.npos);
    CLAIM(name.data() + name.size() <= text.data() + text.size());
  }
  return 0;
}
