# x86, 32 bits, little-endian.
set(TRIPLET i686-linux-gnu)
# An x86-64 kernel runs these programs itself; only their loader lies elsewhere.
set(EMULATOR /usr/i686-linux-gnu/lib/ld-linux.so.2 --library-path /usr/i686-linux-gnu/lib)
set(CMAKE_SYSTEM_PROCESSOR i686)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
