// The tag of everything that the core and the incident log write to the Android log.
#ifndef QUORVEL_LOG_LOG_TAG_H_
#define QUORVEL_LOG_LOG_TAG_H_

constexpr char kLogTag[] = "QUORVEL";

#endif  // QUORVEL_LOG_LOG_TAG_H_
