# Cross build for 64-bit Arm Linux with Debian's cross compilers
# (g++-aarch64-linux-gnu) against a private sysroot of Debian's arm64
# packages (scripts/cross aarch64 prepares one under build-aarch64/sysroot).
#
#   cmake -S . -B build-aarch64 \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake \
#     -DTREL_SYSROOT=$PWD/build-aarch64/sysroot
#
# TREL_SYSROOT may also come from the environment.  The compiler brings its
# own C library headers and link stubs; the sysroot supplies every other
# library and, at run time, the one C library the programs load: tests and
# build steps run the arm64 programs under qemu-aarch64 with the sysroot as
# their root for the dynamic loader (CMAKE_CROSSCOMPILING_EMULATOR).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

if(NOT TREL_SYSROOT AND DEFINED ENV{TREL_SYSROOT})
  set(TREL_SYSROOT "$ENV{TREL_SYSROOT}")
endif()
if(NOT TREL_SYSROOT OR NOT IS_DIRECTORY "${TREL_SYSROOT}/usr/lib/aarch64-linux-gnu")
  message(FATAL_ERROR "TREL_SYSROOT must name an arm64 sysroot (scripts/cross aarch64 makes one); "
                      "got '${TREL_SYSROOT}'")
endif()
set(TREL_SYSROOT "${TREL_SYSROOT}" CACHE PATH "Root of the arm64 libraries the build links and runs against")
# try_compile() projects see the same sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TREL_SYSROOT)

set(CMAKE_SYSROOT "${TREL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${TREL_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads the sysroot's .pc files only and prefixes their paths.
set(ENV{PKG_CONFIG_LIBDIR}
    "${TREL_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${TREL_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TREL_SYSROOT}")
unset(ENV{PKG_CONFIG_PATH})

# The programs load the sysroot's dynamic loader, C library and C++ runtime
# (qemu's -L), never the host's nor the cross compiler's copies: one C library
# in every process.
find_program(TREL_QEMU qemu-aarch64)
if(TREL_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${TREL_QEMU};-L;${TREL_SYSROOT}")
endif()
