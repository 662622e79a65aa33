# Cross build for the handset's CPU with Debian's AArch64 toolchain, linked statically so the
# binaries run under qemu-aarch64-static on an x86-64 machine without an AArch64 sysroot.
#   cmake -S . -B build-aarch64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# The tests (and whatever they start: the daemon, the tools, their own death-test children)
# run through the emulator named here; nothing is registered with binfmt_misc.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

find_program(VEKT_QEMU_AARCH64 qemu-aarch64-static)
if(VEKT_QEMU_AARCH64)
    set(CMAKE_CROSSCOMPILING_EMULATOR ${VEKT_QEMU_AARCH64})
endif()

# Libraries and packages come from the AArch64 tree only (none of the host's x86-64 ones);
# programs (the emulator, pkg-config) from the host.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")
