# Cross build for the routers' 32-bit ARM (hard float) with Debian's cross compiler
# (arm-linux-gnueabihf-g++). Programs built here run on this machine under qemu-user with the
# target's libraries from Debian's cross packages: CTest and test discovery call them
# through CMAKE_CROSSCOMPILING_EMULATOR.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/arm-linux-gnueabihf)

# GCC notes on ARM that the passing of some arguments changed in GCC 7.1; everything here is
# built with one compiler, so the note says nothing about this program.
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi)
