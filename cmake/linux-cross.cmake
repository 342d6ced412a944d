# Cross-compiling for a Linux target with a GNU toolchain named by its
# triple: -DDMS_TARGET_TRIPLE=aarch64-linux-gnu (or arm-linux-gnueabihf, or
# $DMS_TARGET_TRIPLE in the environment).
#
# Build systems that give their own compilers and root keep them:
# CMAKE_C_COMPILER/CMAKE_CXX_COMPILER and CMAKE_SYSROOT are honoured when
# set, and libraries, headers and pkg-config's .pc files are looked up only
# in the target's root (the sysroot, else the multiarch folders of a
# distribution such as Debian's libfoo-dev:arm64).  No path of the building
# machine is baked in.  When the matching user-mode emulator is installed
# (qemu-aarch64, qemu-arm), test programs run through it.
if(NOT DMS_TARGET_TRIPLE)
  set(DMS_TARGET_TRIPLE "$ENV{DMS_TARGET_TRIPLE}")
endif()
if(NOT DMS_TARGET_TRIPLE)
  message(FATAL_ERROR "Name the target: -DDMS_TARGET_TRIPLE=aarch64-linux-gnu")
endif()
set(DMS_TARGET_TRIPLE "${DMS_TARGET_TRIPLE}" CACHE STRING "GNU triple of the target")
# try_compile projects configure with this file too: hand them the triple.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES DMS_TARGET_TRIPLE)

set(CMAKE_SYSTEM_NAME Linux)
string(REGEX MATCH "^[^-]+" DMS_TARGET_CPU "${DMS_TARGET_TRIPLE}")
set(CMAKE_SYSTEM_PROCESSOR "${DMS_TARGET_CPU}")
set(CMAKE_LIBRARY_ARCHITECTURE "${DMS_TARGET_TRIPLE}")
if(NOT CMAKE_C_COMPILER)
  set(CMAKE_C_COMPILER "${DMS_TARGET_TRIPLE}-gcc")
endif()
if(NOT CMAKE_CXX_COMPILER)
  set(CMAKE_CXX_COMPILER "${DMS_TARGET_TRIPLE}-g++")
endif()

# GCC notes, on 32-bit ARM, that GCC 6 and older passed some arguments
# differently; nothing built here is linked with code that old.
if(DMS_TARGET_CPU MATCHES "^arm")
  string(APPEND CMAKE_CXX_FLAGS_INIT " -Wno-psabi")
endif()

# Programs of the building machine, everything else of the target.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(DMS_TARGET_ROOT "${CMAKE_SYSROOT}")
if(NOT DMS_TARGET_ROOT)
  set(DMS_TARGET_ROOT "/")
endif()
list(APPEND CMAKE_FIND_ROOT_PATH "${DMS_TARGET_ROOT}")

# pkg-config of the target: its .pc files only, their paths under the sysroot.
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/${DMS_TARGET_TRIPLE}/pkgconfig:${CMAKE_SYSROOT}/usr/lib/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
if(CMAKE_SYSROOT)
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
endif()

# The emulator for running the target's test programs here.  Its library
# root is the sysroot, else "/", where the multiarch libraries and the
# target's loader live (a root of /usr/<triple> holds a C library that need
# not match the installed one).
if(DMS_TARGET_CPU STREQUAL "aarch64")
  set(DMS_QEMU qemu-aarch64)
elseif(DMS_TARGET_CPU MATCHES "^arm")
  set(DMS_QEMU qemu-arm)
endif()
if(DMS_QEMU AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(DMS_QEMU_PROGRAM ${DMS_QEMU})
  if(DMS_QEMU_PROGRAM)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${DMS_QEMU_PROGRAM};-L;${DMS_TARGET_ROOT}")
  endif()
endif()
