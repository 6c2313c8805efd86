# What gets installed, and the Debian package that CPack makes of it. scripts/package makes all packages.
set(WEBREQ_MAINTAINER "The webreq authors <webreq@example.org>" CACHE STRING "The packages' maintainer")

set(package webreq)
if(WEBREQ_STATIC)
  set(package webreq-static)
endif()

install(TARGETS webreq)
configure_file(docs/webreq.1 webreq.1 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/webreq.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
set(documents ${CMAKE_INSTALL_DATADIR}/doc/${package})
file(READ packaging/debian/copyright copyright)
if(WEBREQ_STATIC)
  include(static/Contents.cmake)
  file(READ static/copyright libraries)
  string(APPEND copyright "${libraries}")
endif()
file(CONFIGURE OUTPUT copyright CONTENT "${copyright}" @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/copyright DESTINATION ${documents})
install(FILES CHANGELOG.md DESTINATION ${documents} RENAME changelog)
install(FILES README.md SECURITY.md DESTINATION ${documents})
install(DIRECTORY docs examples DESTINATION ${documents} USE_SOURCE_PERMISSIONS PATTERN webreq.1 EXCLUDE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${package})
set(CPACK_PACKAGE_CONTACT ${WEBREQ_MAINTAINER})
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/finish.cmake)

set(CPACK_PACKAGE_DESCRIPTION "It is started by other programs, for which it performs a request that one
argument describes. The answer, the result and the body of the response, is on
its standard output, or the body in a file. Certificates are not verified.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
if(EXISTS /etc/debian_version AND NOT WEBREQ_STATIC)  # its releases make packages that differ
  cmake_host_system_information(RESULT debian QUERY DISTRIB_VERSION_ID)
  string(APPEND CPACK_DEBIAN_PACKAGE_RELEASE ~deb${debian}u1)
endif()
set(CPACK_DEBIAN_PACKAGE_SECTION web)
if(WEBREQ_STATIC)
  string(APPEND CPACK_PACKAGE_DESCRIPTION "
This one is static and needs nothing: no library, no other package.")
  set(x86_64 amd64)
  set(aarch64 arm64)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${${CMAKE_SYSTEM_PROCESSOR}})  # the target's; the machine may have the other
  foreach(relation IN ITEMS PROVIDES CONFLICTS REPLACES)
    set(CPACK_DEBIAN_PACKAGE_${relation} webreq)
  endforeach()
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)
