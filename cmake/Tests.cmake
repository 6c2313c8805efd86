# End-to-end tests of the built tool, e2e/test_<name>.py; unit tests, <name>_test.cpp, linked with a recording libcurl.
set(end_to_end_tests command_line environment examples failures fields footprint hardening headers misbehaving_servers
  output output_file process proxies readme redirects resolver responses static system_calls timeouts tls)
set(unit_tests text/strings net/web_request app/request_description app/response_reservation app/front_end)

list(TRANSFORM end_to_end_tests REPLACE "(.+)" "e2e/test_\\1.py" OUTPUT_VARIABLE listed)
list(TRANSFORM unit_tests REPLACE "(.+)" "\\1_test.cpp" OUTPUT_VARIABLE listed_units)
file(GLOB unlisted RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS e2e/test_*.py */*_test.cpp)
list(REMOVE_ITEM unlisted ${listed} ${listed_units})
if(unlisted)
  message(FATAL_ERROR "cmake/Tests.cmake doesn't list ${unlisted}, which would never run.")
endif()

# What the tests take; all that is missing is named at once. pytest is Debian's, or the one that scripts/setup installs
# where there are no packages of it; -p has it import a module.
set(programs PYTEST NGINX OPENSSL)
if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  list(APPEND programs FAKETIME STRACE)
endif()
foreach(program IN LISTS programs)
  string(TOLOWER ${program} name)
  find_program(${program} NAMES ${name}-3 ${name} HINTS ${PROJECT_SOURCE_DIR}/build/venv/bin /usr/sbin)
  if(NOT ${program})
    list(APPEND missing ${name})
  endif()
endforeach()
set(ENV{PYTHONDONTWRITEBYTECODE} 1)  # nothing is written into the source's folder
foreach(module IN ITEMS xdist h2 dns cryptography)
  execute_process(COMMAND ${PYTEST} -p ${module} --markers RESULT_VARIABLE failed OUTPUT_QUIET ERROR_QUIET)
  if(failed)
    list(APPEND missing "Python's ${module}")
  endif()
endforeach()
if(NOT WEBREQ_STATIC)
  find_package(GTest QUIET)
  if(NOT GTest_FOUND)
    list(APPEND missing GoogleTest)
  endif()
endif()
if(missing)
  list(JOIN missing ", " missing)
  message(FATAL_ERROR "The tests, BUILD_TESTING, lack ${missing}. CONTRIBUTING.md says more.")
endif()

add_executable(fetch_example examples/fetch.cpp)
target_link_libraries(fetch_example PRIVATE compiler_options)

# What runs the tool and the example: themselves, or a script that has the emulator do so.
foreach(name webreq fetch_example)
  set(${name} $<TARGET_FILE:${name}>)
  if(CMAKE_CROSSCOMPILING)
    set(${name} ${PROJECT_BINARY_DIR}/${name}-emulated)
    list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
    set(translator TRANSLATOR=${CMAKE_CROSSCOMPILING_EMULATOR})
    file(GENERATE OUTPUT ${${name}} CONTENT "#!/bin/sh\nexec ${emulator} '$<TARGET_FILE:${name}>' \"$@\"\n"
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endif()
endforeach()

set(processes_resolver 6)
set(processes_timeouts 12)
foreach(name IN LISTS end_to_end_tests)
  if(NOT DEFINED processes_${name})
    set(processes_${name} 0)
  endif()
  add_test(NAME e2e/${name} COMMAND ${PYTEST} -n ${processes_${name}} ${PROJECT_SOURCE_DIR}/e2e/test_${name}.py)
  set_tests_properties(e2e/${name} PROPERTIES
    TIMEOUT 120
    ENVIRONMENT "WEBREQ=${webreq};FETCH_EXAMPLE=${fetch_example};${translator};PYTHONDONTWRITEBYTECODE=1")
endforeach()
# Their cases wait in parallel, and no other test runs at the same time.
set_tests_properties(e2e/resolver e2e/timeouts PROPERTIES RUN_SERIAL ON)
set_tests_properties(e2e/resolver PROPERTIES SKIP_RETURN_CODE 5)  # "no tests ran": where no network can be made
if(NOT CMAKE_BUILD_TYPE STREQUAL "Release")
  set_tests_properties(e2e/footprint e2e/hardening PROPERTIES DISABLED ON)
endif()

# Preloaded into the tool by tests in e2e/.
if(CMAKE_SYSTEM_NAME STREQUAL "Linux" AND NOT WEBREQ_STATIC)
  foreach(name failing_malloc idle_libcurl)
    add_library(${name} MODULE e2e/support/preload/${name}.cpp)
    target_link_libraries(${name} PRIVATE compiler_options ${CMAKE_DL_LIBS})
    set_target_properties(${name} PROPERTIES PREFIX "")
  endforeach()
  target_link_libraries(idle_libcurl PRIVATE CURL::libcurl)  # its headers
endif()

# Nothing can be preloaded into a static executable: the same objects once more, with allocations that fail.
if(WEBREQ_STATIC)
  add_executable(webreq_failing_malloc app/main.cpp e2e/support/preload/failing_malloc.cpp)
  target_compile_definitions(webreq_failing_malloc PRIVATE WRAPPED)
  target_link_libraries(webreq_failing_malloc PRIVATE front_end compiler_options)
  foreach(name IN ITEMS aligned_alloc calloc main malloc posix_memalign realloc)
    target_link_options(webreq_failing_malloc PRIVATE --wrap=${name})
  endforeach()
endif()

# The unit tests are about the code, not about the machine and its C library.
if(WEBREQ_STATIC)
  return()
endif()

include(GoogleTest)

# A universal build's tests are for the machine that runs them, as GoogleTest's library is.
if(CMAKE_OSX_ARCHITECTURES)
  set(CMAKE_OSX_ARCHITECTURES ${CMAKE_HOST_SYSTEM_PROCESSOR})
endif()

add_library(test_support OBJECT testing/failing_allocation.cpp testing/recording_curl.cpp)
target_link_libraries(test_support PUBLIC reqkit GTest::gtest PRIVATE compiler_options)

foreach(test IN LISTS unit_tests)
  get_filename_component(name ${test} NAME)
  add_executable(${name}_test ${test}_test.cpp)
  target_link_libraries(${name}_test PRIVATE test_support compiler_options GTest::gtest_main)
  if(test MATCHES "^app/")
    target_link_libraries(${name}_test PRIVATE front_end)
  endif()
  gtest_discover_tests(${name}_test PROPERTIES TIMEOUT 60 DISCOVERY_TIMEOUT 60)
endforeach()

option(WEBREQ_FUZZ "Build the fuzz target" OFF)

# The tool alone guides the fuzzer, main included.
if(WEBREQ_FUZZ)
  add_executable(fuzz_command_line fuzz/command_line.cpp app/main.cpp)
  target_compile_definitions(fuzz_command_line PRIVATE main=toolMain)
  set_source_files_properties(fuzz/command_line.cpp PROPERTIES COMPILE_OPTIONS -fno-sanitize=all)
  target_compile_options(test_support PRIVATE -fno-sanitize=all)
  target_link_libraries(fuzz_command_line PRIVATE front_end test_support compiler_options)
  target_link_options(fuzz_command_line PRIVATE -fsanitize=fuzzer
    LINKER:--wrap=open,--wrap=write,--wrap=close,--wrap=fcntl,--wrap=poll,--wrap=signal,--wrap=mmap)
endif()
