# PowerPC, 32 bits, big-endian: the appliance.
set(TRIPLET powerpc-linux-gnu)
set(EMULATOR qemu-ppc -L /usr/powerpc-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR ppc)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
