// Stand-in for the platform's <sys/system_properties.h>: one file a property under
// /dev/__properties__/.
#ifndef QUORVEL_HOST_SYS_SYSTEM_PROPERTIES_H_
#define QUORVEL_HOST_SYS_SYSTEM_PROPERTIES_H_

#define PROP_VALUE_MAX 92

#ifdef __cplusplus
extern "C" {
#endif

// Copies the value, at most 91 characters, and a NUL into value, which must have PROP_VALUE_MAX
// bytes. Returns its length, 0 for an unset property. A newline that a shell's echo left at the end
// of the file does not belong to the value.
int __system_property_get(const char* name, char* value);

// Sets a property in one step: nobody ever reads half a value. Returns 0; -1 for an empty name, one
// with a slash, a value over 91 bytes, a "ro." property that is set already, or a store that cannot
// be written.
int __system_property_set(const char* name, const char* value);

#ifdef __cplusplus
}
#endif

#endif  // QUORVEL_HOST_SYS_SYSTEM_PROPERTIES_H_
