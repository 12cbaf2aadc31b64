# Compiles each public header alone, as C99 and as C++20, with warnings as errors.
#   cmake -DCC=... -DCXX=... -DINCLUDE=... -P headers_test.cmake

file(GLOB headers RELATIVE ${INCLUDE} ${INCLUDE}/qvlib.h ${INCLUDE}/qvlib/*.h)
list(LENGTH headers count)
if(count LESS 7)
  message(FATAL_ERROR "only ${count} headers in ${INCLUDE}")
endif()

function(check compiler)
  foreach(header IN LISTS headers)
    execute_process(
      COMMAND ${CMAKE_COMMAND} -E echo "#include <${header}>\ntypedef int not_empty;"
      COMMAND ${compiler} ${ARGN} -Wall -Wextra -Werror -fsyntax-only -I${INCLUDE} -
      RESULT_VARIABLE failed ERROR_VARIABLE messages)
    if(failed)
      message(SEND_ERROR "${header}: ${compiler} ${ARGN}\n${messages}")
    endif()
  endforeach()
endfunction()

check(${CC} -x c -std=c99 -pedantic)
check(${CXX} -x c++ -std=c++20 -pedantic -Wconversion -Wshadow)
