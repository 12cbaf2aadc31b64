# What a program finds the library by, pkg-config and CMake, and the Debian packages.
include(CMakePackageConfigHelpers)

set(QVLIB_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/qvlib)
install(EXPORT qvlib NAMESPACE qvlib:: FILE qvlib-targets.cmake DESTINATION ${QVLIB_CMAKEDIR} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qvlib-config.cmake.in ${PROJECT_BINARY_DIR}/qvlib-config.cmake
  INSTALL_DESTINATION ${QVLIB_CMAKEDIR} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/qvlib-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/qvlib-config.cmake ${PROJECT_BINARY_DIR}/qvlib-config-version.cmake
  DESTINATION ${QVLIB_CMAKEDIR} COMPONENT development)

# Below the prefix, which pkg-config can define anew. An absolute directory stays as it is.
function(qvlib_pc_directory variable directory base)
  if(IS_ABSOLUTE "${directory}")
    set(${variable} "${directory}" PARENT_SCOPE)
  else()
    set(${variable} "${base}/${directory}" PARENT_SCOPE)
  endif()
endfunction()
qvlib_pc_directory(PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}" "\${prefix}")
qvlib_pc_directory(PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}" "\${prefix}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/qvlib.pc.in ${PROJECT_BINARY_DIR}/qvlib.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/qvlib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

find_program(DPKG_DEB dpkg-deb)
if(PROJECT_IS_TOP_LEVEL AND DPKG_DEB)
  include(${PROJECT_SOURCE_DIR}/packaging/debian/packages.cmake)
endif()
