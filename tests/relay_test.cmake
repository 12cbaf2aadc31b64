# The example relay is run as two processes, with a web server on port 8008: each class is one test.
find_program(PYTHON3 python3 REQUIRED)
find_program(CURL curl REQUIRED)
emulated(relay relay)

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS relay_test.py)
file(STRINGS relay_test.py classes REGEX "^class [A-Za-z]+\\((RelayTest|WebServer)\\)")
list(FILTER classes EXCLUDE REGEX "^class WebServer")
if(CMAKE_CROSSCOMPILING_EMULATOR)
  message(STATUS "Relay: pages alone; the other tests count threads and descriptors, of which an emulator has its own")
  list(FILTER classes INCLUDE REGEX "RelayedPages")
endif()
foreach(class IN LISTS classes)
  string(REGEX REPLACE "^class ([A-Za-z]+).*" "\\1" class "${class}")
  add_test(NAME Relay.${class}
    COMMAND ${PYTHON3} -B ${CMAKE_CURRENT_SOURCE_DIR}/relay_test.py ${class})
  set_tests_properties(Relay.${class} PROPERTIES
    TIMEOUT 300 RESOURCE_LOCK port_8008 ENVIRONMENT "RELAY=${relay}")
endforeach()
