// Stand-in for the platform's <android-base/file.h>.
#ifndef QUORVEL_HOST_ANDROID_BASE_FILE_H_
#define QUORVEL_HOST_ANDROID_BASE_FILE_H_

#include <string>

namespace android {
namespace base {

// Writes all of content, in as many writes as that takes. False, with errno, when one fails.
bool WriteStringToFd(const std::string& content, int fd);

// Path of this process's executable, as seen from the root; empty when it is not known.
std::string GetExecutablePath();

}  // namespace base
}  // namespace android

#endif  // QUORVEL_HOST_ANDROID_BASE_FILE_H_
