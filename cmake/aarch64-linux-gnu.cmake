# Cross build for 64-bit ARM Linux with Debian's cross compiler and the arm64
# multiarch libraries; the tests run under qemu-aarch64. Used by
# scripts/aarch64-check.sh, which installs what it needs.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# The loader and libraries come from the multiarch root: qemu's own default,
# the cross toolchain's sysroot, hangs threaded programs.
find_program(QEVR_QEMU_AARCH64 qemu-aarch64 REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR ${QEVR_QEMU_AARCH64} -L /)
# Headers and CMake packages of the host's multiarch tree serve both
# architectures; libraries are looked up only in aarch64 directories.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
