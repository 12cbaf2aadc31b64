# A firmware build's shared library is compiled as one source, QVLIB_WHOLE, in which the compiler sees all calls of a
# function that isn't exported. Those that are exported have to be marked for it. That the sources get along in one
# takes names that no two of them have in their unnamed namespaces.
set(QVLIB_WHOLE ${CMAKE_CURRENT_BINARY_DIR}/whole.cpp)
set_property(SOURCE ${QVLIB_WHOLE} PROPERTY COMPILE_OPTIONS -fwhole-program -Wno-subobject-linkage)

list(TRANSFORM QVLIB_SOURCES REPLACE "(.+)" "#include \"${CMAKE_CURRENT_SOURCE_DIR}/\\1\"" OUTPUT_VARIABLE includes)
if(QVLIB_POWERPC)
  list(PREPEND includes "#include \"c_calls.h\"")
  # The compiler's own functions can't be called by a stub, so these are none. It still knows memcpy, of which it
  # makes moves of words.
  foreach(name calloc exit fprintf free fwrite malloc memcmp memmove memset printf puts realloc snprintf strcasecmp
      strcmp strcspn strdup strftime strlen strncmp strnlen strspn vasprintf vfprintf vsnprintf)
    set_property(SOURCE ${QVLIB_WHOLE} APPEND PROPERTY COMPILE_OPTIONS -fno-builtin-${name})
  endforeach()
endif()
list(JOIN includes "\n" includes)

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${QVLIB_MAP})
file(STRINGS ${QVLIB_MAP} exports REGEX "^    [a-z_]")
string(REGEX MATCHALL "[A-Za-z0-9_]+" exports "${exports}")
list(TRANSFORM exports REPLACE "(.+)" "EXPORTED(\\1)")
list(JOIN exports "\n" exports)

configure_file(whole.cpp.in ${QVLIB_WHOLE} @ONLY)
