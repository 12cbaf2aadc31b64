# x86, 32 bits, little-endian.
set(TRIPLET i686-linux-gnu)
set(EMULATOR qemu-i386)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
