# Takes the C samples of a document out of it, builds them and compares what they print.
#   cmake -DDOCUMENT=README.md -DCC=... -DFLAGS=... -DINCLUDE=... -DLIBRARY=... -DWORK=...
#         [-DEMULATOR=...] -P sample_test.cmake
#
# A sample is a ```c block with a main; the ```text block that follows it is what it prints. Any other ```c block
# is a fragment: the inside of a function, which is compiled.

file(READ ${DOCUMENT} text)
string(REPLACE ";" "<semicolon>" text "${text}")
string(REPLACE "[" "<open>" text "${text}")
string(REPLACE "]" "<close>" text "${text}")
string(REGEX MATCHALL "```c\n[^`]*```(\n[^`]*```text\n[^`]*```)?" samples "${text}")
if(NOT samples)
  message(FATAL_ERROR "${DOCUMENT} has no sample")
endif()
file(MAKE_DIRECTORY ${WORK})
separate_arguments(FLAGS)
get_filename_component(directory ${LIBRARY} DIRECTORY)

foreach(sample IN LISTS samples)
  string(REPLACE "<semicolon>" ";" sample "${sample}")
  string(REPLACE "<open>" "[" sample "${sample}")
  string(REPLACE "<close>" "]" sample "${sample}")
  string(REGEX REPLACE "^```c\n([^`]*)```.*" "\\1" source "${sample}")
  if(NOT source MATCHES "int main\\(")
    file(WRITE ${WORK}/fragment.c
      "#include <stdio.h>\n#include <stdlib.h>\n#include <syslog.h>\n#include <qvlib.h>\n"
      "void fragment(void);\nvoid fragment(void)\n{\n${source}}\n")
    execute_process(
      COMMAND ${CC} ${FLAGS} -std=c99 -Wall -Wextra -Werror -fsyntax-only -I${INCLUDE} ${WORK}/fragment.c
      RESULT_VARIABLE failed ERROR_VARIABLE messages)
    if(failed)
      message(FATAL_ERROR "a fragment of ${DOCUMENT} does not compile:\n${messages}")
    endif()
    continue()
  endif()
  if(NOT sample MATCHES "```text\n")
    message(FATAL_ERROR "a sample of ${DOCUMENT} does not say what it prints")
  endif()
  string(REGEX REPLACE ".*```text\n([^`]*)```$" "\\1" expected "${sample}")
  file(WRITE ${WORK}/sample.c "${source}")
  execute_process(
    COMMAND ${CC} ${FLAGS} -std=c99 -Wall -Wextra -Werror -I${INCLUDE} ${WORK}/sample.c ${LIBRARY}
            -Wl,-rpath,${directory} -o ${WORK}/sample
    RESULT_VARIABLE failed ERROR_VARIABLE messages)
  if(failed)
    message(FATAL_ERROR "a sample of ${DOCUMENT} does not compile:\n${messages}")
  endif()
  execute_process(COMMAND ${EMULATOR} ${WORK}/sample RESULT_VARIABLE failed OUTPUT_VARIABLE printed)
  if(failed OR NOT printed STREQUAL expected)
    message(FATAL_ERROR "a sample of ${DOCUMENT} printed\n${printed}\nand not\n${expected}")
  endif()
endforeach()
