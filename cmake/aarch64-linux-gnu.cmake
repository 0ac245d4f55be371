# Cross-builds for AArch64 with Debian's aarch64-linux-gnu compilers and the
# arm64 multiarch libraries; ctest runs the test programs under qemu-aarch64.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Headers and libraries of the target come from the multiarch folders
# (/usr/include/aarch64-linux-gnu, /usr/lib/aarch64-linux-gnu); build
# programs still come from the host.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
# pkg-config hints (FindLibXml2 asks for them) name the arm64 folders.
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# qemu runs the test programs on the arm64 multiarch loader and libc
# (libc6:arm64, under /). No -L /usr/aarch64-linux-gnu: that loader is the
# cross package's build of glibc, and with the multiarch libc.so.6 that
# /etc/ld.so.cache names it makes every fork spin in the child.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
