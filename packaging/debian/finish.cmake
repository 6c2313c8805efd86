# CPack runs this on the files of a Debian package before it packs them: what Debian wants of its packages, and one time
# stamp and mode for all, so that equal files make equal packages.
set(files ${CPACK_TEMPORARY_DIRECTORY})
set(share ${files}/usr/share)

string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)  # SOURCE_DATE_EPOCH's
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog ${share}/doc/${CPACK_PACKAGE_NAME}/changelog.Debian @ONLY)
set(overrides ${CMAKE_CURRENT_LIST_DIR}/../../static/lintian-overrides)
if(CPACK_PACKAGE_NAME STREQUAL "webreq-static")
  configure_file(${overrides} ${share}/lintian/overrides/${CPACK_PACKAGE_NAME} COPYONLY)
endif()
file(GLOB documents ${share}/man/man1/* ${share}/doc/*/changelog*)
execute_process(COMMAND gzip -9n ${documents} COMMAND_ERROR_IS_FATAL ANY)

execute_process(COMMAND chmod -R u=rwX,go=rX ${files} COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND find ${files} -exec touch -h -d @$ENV{SOURCE_DATE_EPOCH} {} + COMMAND_ERROR_IS_FATAL ANY)
