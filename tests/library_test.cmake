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
    COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/shared_tables_test.sh $<TARGET_FILE:qvlib_static>
            $<$<BOOL:${QVLIB_FIRMWARE}>:firmware>)
endif()
# The reference is made of the headers and is the same for every build.
find_program(DOXYGEN doxygen)
if(SANITIZED)
elseif(DOXYGEN)
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
            -DWORK=${CMAKE_CURRENT_BINARY_DIR}/samples_${name}
            "-DEMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR}" -P ${CMAKE_CURRENT_SOURCE_DIR}/sample_test.cmake)
endforeach()

# Bytes that other machines and other programs see.
add_executable(vectors formats/vectors.c)
target_compile_definitions(vectors PRIVATE _GNU_SOURCE)
target_compile_options(vectors PRIVATE ${QVLIB_WARNINGS})
target_link_libraries(vectors PRIVATE qvlib)
emulated(vectors vectors)
add_test(NAME Formats.AreTheSameBytesOnEveryMachine
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/formats/formats_test.sh
          ${CMAKE_CURRENT_SOURCE_DIR}/formats/vectors.golden ${vectors})

# The binary interface: what is exported, how the records lie, and the types of all of it.
set(abi ${CMAKE_CURRENT_SOURCE_DIR}/abi)
if(NOT SANITIZED AND QVLIB_HAVE_PTHREAD_SPIN)
  add_test(NAME Abi.ExportsWhatTheListSays
    COMMAND ${abi}/exports_test.sh ${abi}/exports.txt ${CMAKE_NM} $<TARGET_FILE:qvlib>)
endif()
string(REGEX REPLACE "^ppc$" "powerpc" machine ${CMAKE_SYSTEM_PROCESSOR})
if(EXISTS ${abi}/layouts-${machine}.txt)
  add_executable(layouts abi/layouts.c)
  target_compile_options(layouts PRIVATE ${QVLIB_WARNINGS})
  target_link_libraries(layouts PRIVATE qvlib)
  emulated(layouts layouts)
  add_test(NAME Abi.LaysRecordsOutAsDaemonsHaveThem
    COMMAND ${abi}/layouts_test.sh ${PROJECT_SOURCE_DIR}/include ${abi}/layouts.c ${abi}/layouts-${machine}.txt ${layouts})
endif()
if(NOT SANITIZED AND machine STREQUAL x86_64 AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  add_test(NAME Abi.HasTheTypesOfItsDescription
    COMMAND ${abi}/interface_test.sh ${abi}/qvlib-x86_64.abi $<TARGET_FILE:qvlib>)
endif()

# What is installed, and what distributions pass.
set(install ${CMAKE_CURRENT_SOURCE_DIR}/install)
if(NOT SANITIZED AND NOT CMAKE_CROSSCOMPILING AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  add_test(NAME Install.ServesProgramsByPkgConfigAndCMake
    COMMAND ${install}/install_test.sh ${PROJECT_BINARY_DIR} ${CMAKE_INSTALL_LIBDIR} ${PROJECT_VERSION}
      $<IF:$<BOOL:${QVLIB_BUILD_TOOLS}>,ON,OFF> $<IF:$<OR:$<BOOL:${QVLIB_BUILD_EXAMPLES}>,$<BOOL:${QVLIB_BUILD_DOCS}>>,ON,OFF>)
  add_test(NAME Install.TakesWhatTheRecipesPass COMMAND ${install}/recipes_test.sh ${PROJECT_SOURCE_DIR})
endif()
