# CPack runs this on a package's files before it packs them: one mode and time stamp for all, so that equal files make
# equal packages, and in Debian's what Debian wants of its packages.
set(files ${CPACK_TEMPORARY_DIRECTORY})
set(share ${files}/usr/share)
set(documents ${files}/usr/${CPACK_DOCUMENTS})
if(NOT DEFINED ENV{SOURCE_DATE_EPOCH})
  set(ENV{SOURCE_DATE_EPOCH} ${CPACK_SOURCE_DATE_EPOCH})
endif()
set(ENV{WEBREQ_PACKAGER} ${CPACK_PACKAGE_CONTACT})  # for rpmbuild

if(CPACK_GENERATOR STREQUAL "DEB")
  file(GLOB licenses ${documents}/LICENSE*)
  execute_process(COMMAND cat ${licenses} OUTPUT_FILE ${documents}/copyright COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE ${licenses})
  file(RENAME ${documents}/CHANGELOG.md ${documents}/changelog)
  string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # SOURCE_DATE_EPOCH's
  set(version ${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})
  file(WRITE ${documents}/changelog.Debian "${CPACK_PACKAGE_NAME} (${version}) stable; urgency=medium

  * First package.

 -- ${CPACK_PACKAGE_CONTACT}  ${date}
")
  if(CPACK_PACKAGE_NAME STREQUAL "webreq-static")
    # Position-independent and static: it looks like a shared library, and there are no libraries for it to name.
    file(WRITE ${share}/lintian/overrides/webreq-static
      "webreq-static: shared-library-lacks-prerequisites [usr/bin/webreq]\n")
  endif()
endif()
execute_process(COMMAND chmod -R u=rwX,go=rX ${files} COMMAND_ERROR_IS_FATAL ANY)
if(CPACK_GENERATOR MATCHES "DEB|RPM")
  file(GLOB compressed ${share}/man/man1/* ${documents}/changelog*)
  execute_process(COMMAND gzip -9n ${compressed} COMMAND_ERROR_IS_FATAL ANY)
endif()
if(CPACK_GENERATOR MATCHES "DEB|RPM" AND "$ENV{SOURCE_DATE_EPOCH}")
  execute_process(COMMAND find ${files} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} + COMMAND_ERROR_IS_FATAL ANY)
endif()
