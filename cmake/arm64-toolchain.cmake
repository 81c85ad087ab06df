# Cross-builds for 64-bit ARM on another Debian machine and runs what it built under user-mode
# emulation. scripts/arm64-sysroot makes the machine ready.
#
# The cross compiler brings its own libc and libstdc++ (under /usr/aarch64-linux-gnu); every other
# library comes from the tree that the script unpacks. Hence no --sysroot, which would hide the
# compiler's own, but a root path for the searches.

set(QUORVEL_ARM64_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/arm64-sysroot" CACHE PATH
    "Tree unpacked by scripts/arm64-sysroot")
# The projects of compiler checks read this file afresh.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUORVEL_ARM64_SYSROOT)
get_filename_component(_sysroot "${QUORVEL_ARM64_SYSROOT}" ABSOLUTE)
if(NOT EXISTS "${_sysroot}/.stamp")
  message(FATAL_ERROR "${_sysroot} is missing or incomplete: run scripts/arm64-sysroot first")
endif()

set(_triplet aarch64-linux-gnu)
set(_libc_root /usr/${_triplet})

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER ${_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${_triplet}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${_triplet})

set(CMAKE_FIND_ROOT_PATH "${_sysroot}" ${_libc_root})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${_sysroot}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${_sysroot}/usr/lib/${_triplet}/pkgconfig:${_sysroot}/usr/share/pkgconfig")

# Libraries that an unpacked library needs in turn (libunwind: liblzma).
set(_lib_dirs "${_sysroot}/usr/lib/${_triplet}" "${_sysroot}/lib/${_triplet}")
list(JOIN _lib_dirs ":" _lib_path)
foreach(_kind EXE SHARED MODULE)
  set(CMAKE_${_kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${_lib_path}")
endforeach()

find_program(QUORVEL_ARM64_EMULATOR NAMES qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${QUORVEL_ARM64_EMULATOR}" -L ${_libc_root} -E "LD_LIBRARY_PATH=${_lib_path}")
