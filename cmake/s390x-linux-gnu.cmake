# IBM Z, 64 bits, big-endian.
set(TRIPLET s390x-linux-gnu)
set(EMULATOR qemu-s390x -L /usr/s390x-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
