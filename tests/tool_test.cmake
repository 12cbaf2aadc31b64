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
    add_test(NAME Qvl.${class} COMMAND Python3::Interpreter -B ${CMAKE_CURRENT_SOURCE_DIR}/${file} ${class})
    set_tests_properties(Qvl.${class} PROPERTIES TIMEOUT 300 ENVIRONMENT
      "QVL=$<TARGET_FILE:qvl>;UNITD=$<$<TARGET_EXISTS:unitd>:$<TARGET_FILE:unitd>>;CMAKE=${CMAKE_COMMAND};BUILD=${PROJECT_BINARY_DIR};LSAN_OPTIONS=${tool_leaks}")
  endforeach()
endforeach()
