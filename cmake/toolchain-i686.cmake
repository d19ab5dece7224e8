# 32-bit x86 build with Debian's cross compiler (i686-linux-gnu-g++): the daemon as a 32-bit
# program on the development machine's own CPU family. A cross compiler rather than -m32,
# because Debian's multilib packages cannot be installed beside the cross compilers of the
# router builds. Programs run under qemu-user with the target's libraries, which also
# works where the kernel has its 32-bit emulation switched off; CTest and test discovery
# call them through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)

set(CMAKE_C_COMPILER i686-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER i686-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH /usr/i686-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-i386 -L /usr/i686-linux-gnu)
