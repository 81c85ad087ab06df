#include "html_log.h"

#include <zlib.h>

namespace report {
namespace {

constexpr int kLevel = 6;  // zlib's own default

std::string Base64(const std::string& bytes) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  text.reserve((bytes.size() + 2) / 3 * 4);
  for (size_t i = 0; i < bytes.size(); i += 3) {
    unsigned group = 0;
    for (size_t j = i; j < i + 3; ++j) {
      group = group << 8 | (j < bytes.size() ? static_cast<unsigned char>(bytes[j]) : 0u);
    }
    for (unsigned shift : {18u, 12u, 6u, 0u}) text += kDigits[group >> shift & 0x3F];
  }
  const size_t missing = (3 - bytes.size() % 3) % 3;
  text.replace(text.size() - missing, missing, missing, '=');
  return text;
}

}  // namespace

std::string PackLog(std::string_view raw) {
  uLongf size = compressBound(raw.size());
  std::string packed(size, '\0');
  if (compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
                reinterpret_cast<const Bytef*>(raw.data()), raw.size(), kLevel) != Z_OK) {
    return "";
  }
  packed.resize(size);
  return Base64(packed);
}

}  // namespace report
