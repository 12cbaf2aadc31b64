# The tool is run as a process: each class of tool_test.py is one test.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS tool_test.py)
file(STRINGS tool_test.py tool_tests REGEX "^class [A-Za-z]+\\(ToolTest\\)")
set(tool_leaks "LSAN_OPTIONS=suppressions=${CMAKE_CURRENT_SOURCE_DIR}/tool_leaks.supp:print_suppressions=0")
foreach(line IN LISTS tool_tests)
  string(REGEX REPLACE "^class ([A-Za-z]+).*" "\\1" name "${line}")
  add_test(NAME Qvl.${name} COMMAND Python3::Interpreter -B ${CMAKE_CURRENT_SOURCE_DIR}/tool_test.py ${name})
  set_tests_properties(Qvl.${name} PROPERTIES TIMEOUT 300 ENVIRONMENT
    "QVL=$<TARGET_FILE:qvl>;CMAKE=${CMAKE_COMMAND};BUILD=${PROJECT_BINARY_DIR};${tool_leaks}")
endforeach()
