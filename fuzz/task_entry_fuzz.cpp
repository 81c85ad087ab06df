// Names of a task directory's entries: what is taken for a thread id is one, written out in full.

#include "fuzz.h"
#include "log/proctid.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string name = Input{data, size}.TakeText();
  int tid = -1;
  if (!proctid::ParseTid(name.c_str(), &tid)) {
    CLAIM(tid == -1 && (errno == EINVAL || errno == ERANGE));
    CLAIM(name.empty() || name.size() > 9 || name[0] == '0' ||
          name.find_first_not_of("0123456789") != name.npos);
    return 0;
  }
  char text[16];
  const bool hex = name.find_first_of("xX") != name.npos;
  snprintf(text, sizeof(text), hex ? "%x" : "%d", static_cast<unsigned>(tid));
  CLAIM(tid > 0);
  CLAIM(strcasecmp(name.c_str() + name.find_first_not_of(" \t\n\v\f\r+0xX"), text) == 0);
  return 0;
}
