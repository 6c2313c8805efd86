# What gets installed, and the Debian package that CPack makes of it. scripts/package makes all packages.
set(WEBREQ_PACKAGE_NAME webreq CACHE STRING "name of the package; one build's packages can replace another's")

install(TARGETS webreq)
install(FILES docs/webreq.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
set(documents ${CMAKE_INSTALL_DATADIR}/doc/${WEBREQ_PACKAGE_NAME})
file(READ packaging/debian/copyright copyright)
if(WEBREQ_BUILD_LIBCURL)
  file(READ packaging/debian/copyright-lean libraries)
  string(APPEND copyright "${libraries}")
endif()
file(CONFIGURE OUTPUT copyright CONTENT "${copyright}" @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/copyright DESTINATION ${documents})
install(FILES CHANGELOG.md DESTINATION ${documents} RENAME changelog)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${WEBREQ_PACKAGE_NAME})
set(CPACK_PACKAGE_CONTACT "The webreq authors <webreq@example.org>")
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/debian/finish.cmake)

set(CPACK_PACKAGE_DESCRIPTION "It is started by other programs, for which it performs a request that one
argument describes. The answer, the result and the body of the response, is on
its standard output, or the body in a file.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SECTION web)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(NOT WEBREQ_PACKAGE_NAME STREQUAL "webreq")
  foreach(relation PROVIDES CONFLICTS REPLACES)
    set(CPACK_DEBIAN_PACKAGE_${relation} webreq)
  endforeach()
endif()
include(CPack)
