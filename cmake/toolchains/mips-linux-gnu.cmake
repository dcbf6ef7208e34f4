# Cross toolchain: 32-bit big-endian MIPS Linux (glibc), Debian's
# g++-mips-linux-gnu. Test programs run under qemu-user (package qemu-user).
#
#   cmake -S . -B build-mips \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mips-linux-gnu.cmake
#
# Overridable cache variables:
#   MIPS_SYSROOT        target root with libc/libstdc++ (default /usr/mips-linux-gnu)
#   MIPS_TOOL_PREFIX    compiler prefix (default mips-linux-gnu-)
#   MIPS_QEMU           emulator program (default qemu-mips found in PATH)

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

set(MIPS_SYSROOT "/usr/mips-linux-gnu" CACHE PATH "Target root for mips-linux-gnu")
set(MIPS_TOOL_PREFIX "mips-linux-gnu-" CACHE STRING "Cross compiler prefix")

# The toolchain file is read again for try_compile projects: pass the
# settings through so they see the same values.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MIPS_SYSROOT MIPS_TOOL_PREFIX MIPS_QEMU)

set(CMAKE_C_COMPILER   ${MIPS_TOOL_PREFIX}gcc)
set(CMAKE_CXX_COMPILER ${MIPS_TOOL_PREFIX}g++)

# Debian's cross compilers already know their own sysroot layout; only the
# find-root is needed so find_* look for target files, never host ones.
set(CMAKE_FIND_ROOT_PATH ${MIPS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# How target programs are run at build/test time (add_test, ctest,
# gtest_discover_tests, try_run). "-L" points qemu's dynamic loader lookup at
# the target root; QEMU_LD_PREFIX in the environment would do the same.
if(NOT MIPS_QEMU)
    find_program(MIPS_QEMU NAMES qemu-mips qemu-mips-static)
endif()
if(MIPS_QEMU)
    set(CMAKE_CROSSCOMPILING_EMULATOR "${MIPS_QEMU};-L;${MIPS_SYSROOT}")
else()
    message(WARNING "qemu-mips not found: target programs cannot be run on this host "
                    "(apt-get install qemu-user)")
endif()
