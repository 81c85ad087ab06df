/*
 * The version of this header and of the library that was built with it: semantic versioning of the
 * programming and binary interface. The build reads it from here.
 */
#ifndef QUORVEL_VERSION_H_
#define QUORVEL_VERSION_H_

#define QUORVEL_VERSION_MAJOR 1
#define QUORVEL_VERSION_MINOR 0
#define QUORVEL_VERSION_PATCH 0
#define QUORVEL_VERSION_STRING "1.0.0"

/* As one number, for comparisons: #if QUORVEL_VERSION >= QUORVEL_VERSION_NUMBER(1, 2, 0) */
#define QUORVEL_VERSION_NUMBER(major, minor, patch) ((major)*1000000L + (minor)*1000L + (patch))
#define QUORVEL_VERSION \
  QUORVEL_VERSION_NUMBER(QUORVEL_VERSION_MAJOR, QUORVEL_VERSION_MINOR, QUORVEL_VERSION_PATCH)

#endif /* QUORVEL_VERSION_H_ */
