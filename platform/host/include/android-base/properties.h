// Stand-in for the platform's <android-base/properties.h>.
#ifndef QUORVEL_HOST_ANDROID_BASE_PROPERTIES_H_
#define QUORVEL_HOST_ANDROID_BASE_PROPERTIES_H_

#include <string>

namespace android {
namespace base {

// The value of a system property; default_value when it is unset or empty.
std::string GetProperty(const std::string& key, const std::string& default_value);

}  // namespace base
}  // namespace android

#endif  // QUORVEL_HOST_ANDROID_BASE_PROPERTIES_H_
