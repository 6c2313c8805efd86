# What gets installed, and the packages that CPack makes of it. scripts/package makes all packages.
set(WEBREQ_MAINTAINER "The webreq authors <webreq@example.org>" CACHE STRING "The packages' maintainer")
if(DEFINED ENV{WEBREQ_MAINTAINER})  # scripts/package's
  set(WEBREQ_MAINTAINER $ENV{WEBREQ_MAINTAINER})
endif()

# The packages' time stamp, unless one is given: the version's date.
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND date -u -d ${WEBREQ_DATE} +%s OUTPUT_VARIABLE epoch ERROR_QUIET)
  string(STRIP "${epoch}" epoch)
  set(ENV{SOURCE_DATE_EPOCH} ${epoch})
endif()

set(package webreq)
set(documents ${CMAKE_INSTALL_DOCDIR})
if(WEBREQ_STATIC)
  set(package webreq-static)
  if(NOT "$CACHE{CMAKE_INSTALL_DOCDIR}")
    set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package})
  endif()
  install(FILES static/copyright DESTINATION ${documents} RENAME LICENSE.libraries)
endif()
install(TARGETS webreq)
if(WEBREQ_STATIC)
  # The list for scanners. It is written at every installation, as it has the sum of what is installed.
  install(CODE "if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
    set(ENV{SOURCE_DATE_EPOCH} $ENV{SOURCE_DATE_EPOCH})
  endif()
  execute_process(
    COMMAND \"${PROJECT_SOURCE_DIR}/build/tools/bin/python\" \"${PROJECT_SOURCE_DIR}/static/contents.py\"
      ${PROJECT_VERSION} \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/webreq\"
      \"${PROJECT_BINARY_DIR}/webreq-static.spdx.json\"
    COMMAND_ERROR_IS_FATAL ANY)")
  install(FILES ${PROJECT_BINARY_DIR}/webreq-static.spdx.json DESTINATION ${documents})
endif()
configure_file(docs/webreq.1 webreq.1 @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/webreq.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES README.md CHANGELOG.md LICENSE SECURITY.md DESTINATION ${documents})
install(FILES static/README.md DESTINATION ${documents}/static)
install(DIRECTORY docs examples DESTINATION ${documents} PATTERN webreq.1 EXCLUDE PATTERN *.sh EXCLUDE)
install(PROGRAMS examples/fan-out.sh examples/fetch.sh DESTINATION ${documents}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${package})
set(CPACK_PACKAGE_CONTACT ${WEBREQ_MAINTAINER})
set(CPACK_PACKAGE_VENDOR "The webreq authors")
set(CPACK_PACKAGE_HOMEPAGE_URL https://example.org/webreq)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/finish.cmake)
set(CPACK_DOCUMENTS ${documents})
set(CPACK_SOURCE_DATE_EPOCH $ENV{SOURCE_DATE_EPOCH})
set(CPACK_PACKAGE_DESCRIPTION "It is started by other programs, for which it performs a request that one
argument describes. The answer, the result and the body of the response, is on
its standard output, or the body in a file. Certificates are not verified.")

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
if(EXISTS /etc/debian_version AND NOT WEBREQ_STATIC)  # its releases make packages that differ
  file(STRINGS /etc/os-release release REGEX "^VERSION_ID=")
  string(REGEX REPLACE "VERSION_ID=|\"" "" release "${release}")
  string(APPEND CPACK_DEBIAN_PACKAGE_RELEASE ~deb${release}u1)
endif()
set(CPACK_DEBIAN_PACKAGE_SECTION web)
if(CMAKE_CROSSCOMPILING)  # otherwise CPack asks dpkg
  string(REPLACE x86_64 amd64 name ${CMAKE_SYSTEM_PROCESSOR})
  string(REPLACE aarch64 arm64 name ${name})
  string(REPLACE armv7l armhf CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${name})
endif()

set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_RPM_PACKAGE_LICENSE MIT)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION /usr/share/man /usr/share/man/man1)
# The same bytes wherever and whenever; no script of rpmbuild's strips or compresses files.
set(CPACK_RPM_SPEC_MORE_DEFINE "%define packager %{getenv:WEBREQ_PACKAGER}
%define _buildhost localhost
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define _build_id_links none
%define __os_install_post %{nil}")

if(WEBREQ_STATIC)
  string(APPEND CPACK_PACKAGE_DESCRIPTION "
This one is static and needs nothing: no library, no other package.")
  string(APPEND CPACK_RPM_PACKAGE_LICENSE " AND Apache-2.0 AND Apache-2.0 WITH LLVM-exception AND curl AND ISC")
  set(CPACK_RPM_PACKAGE_AUTOREQ OFF)
  foreach(relation IN ITEMS DEBIAN_PACKAGE_PROVIDES DEBIAN_PACKAGE_CONFLICTS DEBIAN_PACKAGE_REPLACES
      RPM_PACKAGE_PROVIDES RPM_PACKAGE_CONFLICTS)
    set(CPACK_${relation} webreq)
  endforeach()
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
set(CPACK_RPM_PACKAGE_DESCRIPTION ${CPACK_PACKAGE_DESCRIPTION})
include(CPack)
