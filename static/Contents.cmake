# webreq-static.spdx.json lists what is in the executable, for scanners. It is written at every installation, as it has
# the sum of what is installed.
install(CODE "execute_process(
  COMMAND \"${PROJECT_SOURCE_DIR}/build/tools/bin/python\" \"${PROJECT_SOURCE_DIR}/static/contents.py\"
    ${PROJECT_VERSION} \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}/webreq\"
    \"${PROJECT_BINARY_DIR}/webreq-static.spdx.json\"
  COMMAND_ERROR_IS_FATAL ANY)")
install(FILES ${PROJECT_BINARY_DIR}/webreq-static.spdx.json DESTINATION ${documents})
