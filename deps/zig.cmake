# Toolchain file: builds, on Linux, for the system that ZIG_TARGET names, x86_64-linux-musl or aarch64-macos.11.0 say.
# The zig that deps/fetch lays down compiles; LLVM's linker links with the C++ and C libraries that zig builds. It is
# called directly: with `zig c++` in its place configuring takes 107 seconds of processor time instead of 12. So link
# options are its own, without "LINKER:".
cmake_path(SET cache NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../build/zig-cache)
file(REAL_PATH ${CMAKE_CURRENT_LIST_DIR}/../build/tools/bin/zig zig)
if(NOT EXISTS ${zig})
  message(FATAL_ERROR "There is no zig in build/tools: run scripts/setup static.")
endif()
cmake_path(GET zig PARENT_PATH zig_folder)
set(environment ZIG_GLOBAL_CACHE_DIR=${cache})

string(REGEX MATCH "^([^-]+)-(linux|macos)[-.]?([0-9.]*)" target ${ZIG_TARGET})
set(processor ${CMAKE_MATCH_1})
set(oldest ${CMAKE_MATCH_3})
if(target MATCHES macos)
  set(CMAKE_SYSTEM_NAME Darwin)
elseif(NOT processor STREQUAL CMAKE_HOST_SYSTEM_PROCESSOR)
  set(CMAKE_SYSTEM_NAME Linux)
endif()
if(target MATCHES linux)
  # Keeps clang from looking for a system GCC, whose version changes its code for Arm's atomics.
  list(APPEND environment "CCC_OVERRIDE_OPTIONS=#+--gcc-toolchain=/nonexistent")
endif()
set(CMAKE_SYSTEM_PROCESSOR ${processor})

foreach(language IN ITEMS C CXX ASM)
  set(CMAKE_${language}_COMPILER ${zig} cc)
  set(CMAKE_${language}_COMPILER_TARGET ${ZIG_TARGET})
  set(CMAKE_${language}_COMPILER_LAUNCHER env ${environment})
  set(CMAKE_${language}_FLAGS_INIT -g0)
endforeach()
set(CMAKE_CXX_COMPILER ${zig} c++)
set(CMAKE_STRIP true)  # the linker leaves nothing to strip, and the system's would change the bytes
# CMake can't find these out from zig: Debian 13's asks with -Wl, an option that the linker doesn't know.
set(CMAKE_ASM_COMPILER_ID Clang)
set(CMAKE_SIZEOF_VOID_P 8)
set(ENV{ZIG_GLOBAL_CACHE_DIR} ${cache})  # for what CMake compiles to find out about the compiler

# zig builds its libraries when it links for a target, and shows their paths only in its linker's command line. Called
# in a folder above its own, it would name its files by relative paths, and build the libraries once more.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZIG_TARGET inputs)
if(NOT inputs)
  set(empty ${CMAKE_BINARY_DIR}/CMakeFiles/empty)
  file(WRITE ${empty}.cpp "int main() {}\n")
  execute_process(
    COMMAND env ${environment} ZIG_LOCAL_CACHE_DIR=${cache} ${zig} build-exe -target ${ZIG_TARGET} -O ReleaseSmall
      -fno-lto -fPIE -fstrip -lc++ -lc --verbose-link -femit-bin=${empty} ${empty}.cpp
    WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
    ERROR_VARIABLE command_lines ERROR_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE ".*\n" "" command_line "${command_lines}")
  string(REGEX MATCHALL "/o/[0-9a-f]+/[+_a-z0-9]+\\.[ao]" inputs "${command_line}")
  list(TRANSFORM inputs REPLACE ".+/empty.o" "<OBJECTS> <LINK_LIBRARIES>")
  list(TRANSFORM inputs REPLACE "^/.+" "\"${cache}\\0\"")
endif()
set(linked ${inputs})

if(target MATCHES linux)
  set(link "\"${zig}\" ld.lld -static -pie -z relro -z now -z noexecstack --eh-frame-hdr --gc-sections -s")
else()
  # Not zig's own linker: its arm64 executables crash where imports are bound lazily, as up to macOS 11. Nor just any of
  # LLVM's: 14 loses the unwind information's personality functions. Debian 12 and 13 both have 19.
  find_program(LLD ld64.lld-19 REQUIRED)
  string(REPLACE aarch64 arm64 slice ${processor})
  set(link "\"${LLD}\" -arch ${slice} -platform_version macos ${oldest} 14.0")
  string(APPEND link " -dead_strip -S -data_const -adhoc_codesign")
  # libSystem stands before the compiler's run-time library: its memcpy is the faster one.
  list(INSERT linked -1 "\"-L${zig_folder}/lib/libc/darwin\"" -lSystem)
  set(CMAKE_INSTALL_NAME_TOOL true)  # nothing that is installed has a path in it
endif()
list(JOIN linked " " linked)
foreach(language IN ITEMS C CXX)
  set(CMAKE_${language}_LINK_EXECUTABLE "${link} <LINK_FLAGS> ${linked} -o <TARGET>")
  set(CMAKE_${language}_ARCHIVE_CREATE "\"${zig}\" ar qc <TARGET> <OBJECTS>")
  set(CMAKE_${language}_ARCHIVE_APPEND "\"${zig}\" ar q <TARGET> <OBJECTS>")
  set(CMAKE_${language}_ARCHIVE_FINISH "\"${zig}\" ranlib <TARGET>")
endforeach()
