// Stand-in for the platform's <android-base/stringprintf.h>.
#ifndef QUORVEL_HOST_ANDROID_BASE_STRINGPRINTF_H_
#define QUORVEL_HOST_ANDROID_BASE_STRINGPRINTF_H_

#include <string>

namespace android {
namespace base {

// The formatted text; empty when it cannot be formatted.
std::string StringPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace base
}  // namespace android

#endif  // QUORVEL_HOST_ANDROID_BASE_STRINGPRINTF_H_
