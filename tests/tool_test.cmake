# The tool is run as a process: each class of these files is one test.
find_package(Python3 REQUIRED COMPONENTS Interpreter)

set(tool_test_files
    tool_writers_test.py
    tool_commands_test.py
    tool_check_test.py
    tool_output_test.py
    tool_device_test.py
    tool_xml_test.py
    tool_message_test.py
    example_config_test.py
    document_samples_test.py
)
emulated(qvl qvl)
set(unitd)
if(TARGET unitd)
  emulated(unitd unitd)
endif()
set(byte_order "<")
if(CMAKE_CXX_BYTE_ORDER STREQUAL BIG_ENDIAN)
  set(byte_order ">")
endif()
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
set(tool_timeout 300)
if(emulator)
  set(tool_timeout 900)
endif()
set(tool_leaks "suppressions=${CMAKE_CURRENT_SOURCE_DIR}/tool_leaks.supp:print_suppressions=0")

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${tool_test_files})
if(NOT TARGET unitd)
  list(REMOVE_ITEM tool_test_files tool_message_test.py document_samples_test.py) # its daemon is not built
endif()
foreach(file IN LISTS tool_test_files)
  file(STRINGS ${file} classes REGEX "^class [A-Za-z]+\\((Message|Tool)Test\\)")
  list(FILTER classes EXCLUDE REGEX "^class MessageTest")
  foreach(class IN LISTS classes)
    string(REGEX REPLACE "^class ([A-Za-z]+).*" "\\1" class "${class}")
    add_test(NAME Qvl.${class} COMMAND ${Python3_EXECUTABLE} -B ${CMAKE_CURRENT_SOURCE_DIR}/${file} ${class})
    set_tests_properties(Qvl.${class} PROPERTIES TIMEOUT ${tool_timeout} ENVIRONMENT
      "QVL=${qvl};UNITD=${unitd};CMAKE=${CMAKE_COMMAND};BUILD=${PROJECT_BINARY_DIR};BYTE_ORDER=${byte_order};EMULATOR=${emulator};LSAN_OPTIONS=${tool_leaks}")
  endforeach()
endforeach()
