# The library as a whole.
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  set(SANITIZED sanitized)
endif()
add_test(NAME Headers.EachCompilesAloneAsC99AndCxx20
  COMMAND ${CMAKE_COMMAND} -DCC=${CMAKE_C_COMPILER} -DCXX=${CMAKE_CXX_COMPILER}
          -DINCLUDE=${PROJECT_SOURCE_DIR}/include -P ${CMAKE_CURRENT_SOURCE_DIR}/headers_test.cmake)
add_test(NAME Library.ExportsWhatTheVersionScriptLists
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/exports_test.sh $<TARGET_FILE:qvlib> ${QVLIB_MAP}
          ${SANITIZED})
if(NOT SANITIZED) # sanitizers write beside every table
  add_test(NAME Library.SharesItsTablesAmongProcesses
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/shared_tables_test.sh $<TARGET_FILE:qvlib_static>)
endif()
find_program(DOXYGEN doxygen)
if(DOXYGEN)
  add_test(NAME Reference.HasAPageForEachFunction
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/reference_pages_test.sh ${CMAKE_COMMAND} ${PROJECT_SOURCE_DIR}
            ${CMAKE_CURRENT_BINARY_DIR}/reference_pages)
  set_tests_properties(Reference.HasAPageForEachFunction PROPERTIES TIMEOUT 900)
else()
  message(WARNING "The API reference is not tested: Doxygen is missing (scripts/setup test)")
endif()
add_test(NAME Documents.LinkToFilesThatExist
  COMMAND ${CMAKE_COMMAND} -DSOURCE=${PROJECT_SOURCE_DIR} -P ${CMAKE_CURRENT_SOURCE_DIR}/links_test.cmake)
file(GLOB documents RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS
  ${PROJECT_SOURCE_DIR}/*.md ${PROJECT_SOURCE_DIR}/docs/*.md)
foreach(document IN LISTS documents)
  file(STRINGS ${PROJECT_SOURCE_DIR}/${document} samples REGEX "^```c$")
  if(NOT samples)
    continue()
  endif()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${document})
  string(MAKE_C_IDENTIFIER ${document} name)
  add_test(NAME Samples.Of_${name}_PrintWhatTheySay
    COMMAND ${CMAKE_COMMAND} -DDOCUMENT=${PROJECT_SOURCE_DIR}/${document} -DCC=${CMAKE_C_COMPILER}
            "-DFLAGS=${CMAKE_C_FLAGS}" -DINCLUDE=${PROJECT_SOURCE_DIR}/include -DLIBRARY=$<TARGET_FILE:qvlib>
            -DWORK=${CMAKE_CURRENT_BINARY_DIR}/samples_${name} -P ${CMAKE_CURRENT_SOURCE_DIR}/sample_test.cmake)
endforeach()
