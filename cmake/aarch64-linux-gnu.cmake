# Cross build for AArch64 Linux with Debian's cross compiler and multiarch
# arm64 packages (scripts/aarch64.sh installs them). Test programs run under
# qemu-user through CMAKE_CROSSCOMPILING_EMULATOR, so ctest and GoogleTest's
# test discovery work unchanged.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Multiarch layout: libraries in /usr/lib/aarch64-linux-gnu, headers shared.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

find_program(QVN_QEMU_AARCH64 qemu-aarch64 REQUIRED)
# The arm64 dynamic loader and libc of the multiarch packages live under /;
# the cross toolchain's copies under /usr/aarch64-linux-gnu serve as fallback.
set(CMAKE_CROSSCOMPILING_EMULATOR ${QVN_QEMU_AARCH64};-L;/usr/aarch64-linux-gnu)
