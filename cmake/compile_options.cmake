# Warnings of the project's own code; generated sources leave some of them out.
option(QVLIB_WERROR "Treat warnings as errors (CI)" OFF)

set(QVLIB_WARNINGS -Wall -Wextra -Wconversion -Wshadow)
if(QVLIB_WERROR)
  list(APPEND QVLIB_WARNINGS -Werror)
endif()

# No absolute path of the build machine in messages or binaries: a source is named as "../src/log.cpp".
set(QVLIB_PREFIX_MAP
    "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=../"
    "-fmacro-prefix-map=${PROJECT_BINARY_DIR}/=../")

# Of programs that use the library. GCC 12 sees overlaps in additions of short strings that are none (GCC bug 105651).
# Under a sanitizer they are not optimised: compiling them takes a quarter of the time then.
set(QVLIB_PROGRAM_OPTIONS ${QVLIB_WARNINGS} $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=(address|thread)")
  list(APPEND QVLIB_PROGRAM_OPTIONS -O0)
endif()
