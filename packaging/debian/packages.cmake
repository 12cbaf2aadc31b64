# The Debian packages, written by `cpack --preset debian`: libqvlib1, libqvlib-dev, qvlib-tools. Configured with the
# preset "debian", which installs into /usr.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME qvlib)
set(CPACK_PACKAGE_CONTACT "libqvlib maintainers <maintainers@localhost.localdomain>" CACHE STRING
  "Whom the packages name as their maintainer")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "support library of embedded storage firmware")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development)
if(QVLIB_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE qvlib)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)

function(qvlib_component component package section text)
  string(TOUPPER ${component} name)
  set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${name}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${name}_DESCRIPTION "${text}" PARENT_SCOPE)
  # Every package says whose it is and what changed.
  set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package})
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/copyright DESTINATION ${documents}
    COMPONENT ${component} EXCLUDE_FROM_ALL)
  install(FILES ${QVLIB_CHANGELOG} DESTINATION ${documents} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

set(QVLIB_CHANGELOG ${PROJECT_BINARY_DIR}/changelog.Debian.gz)
execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/packaging/debian/changelog OUTPUT_FILE ${QVLIB_CHANGELOG})
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/debian/changelog)

qvlib_component(runtime libqvlib1 libs
  "Corelink configuration trees and messages, containers, logging, sockets,\nencodings and digests, SCSI and SFP tables, and a memory debugger.")
qvlib_component(development libqvlib-dev libdevel
  "Development files: headers, the static library, and what pkg-config and\nCMake find the library by.")
qvlib_component(tools qvlib-tools utils
  "qvl reads corelink configuration, writes it as JSON, XML and paths, merges\nit, decodes SCSI and SFP data, and asks running daemons.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_MULTIARCH same)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libqvlib1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libc6-dev | libc-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libqvlib1 (>= ${PROJECT_VERSION})")

# Which version of the package brought each symbol: 1.0.0 all of them.
file(READ ${PROJECT_SOURCE_DIR}/src/qvlib.map names)
string(REGEX REPLACE "#[^\n]*" "" names "${names}")
string(REGEX REPLACE "local:.*" "" names "${names}")
string(REGEX REPLACE "^[^{]*{[ \n]*global:" "" names "${names}")
string(REGEX MATCHALL "[A-Za-z_0-9]+" names "${names}")
list(SORT names)
set(symbols "libqvlib.so.1 libqvlib1 #MINVER#\n QVLIB_1.0@QVLIB_1.0 1.0.0\n")
foreach(name IN LISTS names)
  string(APPEND symbols " ${name}@QVLIB_1.0 1.0.0\n")
endforeach()
file(WRITE ${PROJECT_BINARY_DIR}/debian/symbols "${symbols}")
file(WRITE ${PROJECT_BINARY_DIR}/debian/shlibs "libqvlib 1 libqvlib1 (>= 1.0.0)\n")
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(control ${PROJECT_BINARY_DIR}/debian)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${control}/symbols;${control}/shlibs;${control}/triggers")

include(CPack)
