# Toolchain file: builds one slice of the macOS executable from Linux; zig compiles, LLVM's linker for macOS links.
# MACOS_SLICE is x86_64 or arm64, ZIG the compiler, CURL_INCLUDE_DIR a folder with nothing but curl/ (libcurl's headers)
# in it.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MACOS_SLICE ZIG CURL_INCLUDE_DIR)
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${MACOS_SLICE})

set(oldest_x86_64 10.13)
set(oldest_arm64 11.0)
set(oldest ${oldest_${MACOS_SLICE}})
string(REPLACE arm64 aarch64 target ${MACOS_SLICE}-macos.${oldest})

set(CMAKE_CXX_COMPILER ${ZIG} c++)
set(CMAKE_CXX_COMPILER_TARGET ${target})
execute_process(COMMAND llvm-config --bindir OUTPUT_VARIABLE llvm OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
find_program(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool HINTS ${llvm} REQUIRED)
find_program(CMAKE_AR llvm-ar HINTS ${llvm} REQUIRED)
find_program(CMAKE_RANLIB llvm-ranlib HINTS ${llvm} REQUIRED)

# Not zig's own linker: its arm64 executables crash where imports are bound lazily, as up to macOS 11. Nor just any of
# LLVM's: 14 loses the unwind information's personality functions. Debian 12 and 13 both have 19.
find_program(LLD ld64.lld-19 REQUIRED)

# zig builds its C++ library, which becomes a part of the executable, and its compiler run-time when it links for the
# target, and tells where they are nowhere but in its linker's command line. libSystem stays between them: its memcpy is
# the faster one.
set(empty ${CMAKE_BINARY_DIR}/CMakeFiles/empty)
file(WRITE ${empty}.cpp "int main() {}\n")
execute_process(
  COMMAND ${ZIG} build-exe -target ${target} -O ReleaseSmall -fstrip -lc++ -lc --verbose-link -femit-bin=${empty} ${empty}.cpp
  ERROR_VARIABLE command_line COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "/o/[0-9a-f]+/lib[+_a-z]+\\.a" libraries "${command_line}")
list(REMOVE_DUPLICATES libraries)
list(TRANSFORM libraries REPLACE "(.+)" "\"$ENV{ZIG_GLOBAL_CACHE_DIR}\\1\"")
list(INSERT libraries 2 -lSystem)
list(JOIN libraries " " libraries)
cmake_path(GET ZIG PARENT_PATH zig_folder)

set(CMAKE_CXX_LINK_EXECUTABLE
  "\"${LLD}\" -arch ${MACOS_SLICE} -platform_version macos ${oldest} 14.0 -dead_strip -S -data_const -adhoc_codesign -o <TARGET> <OBJECTS> <LINK_LIBRARIES> \"-L${zig_folder}/lib/libc/darwin\" ${libraries}")

set(CURL_LIBRARY ${CMAKE_CURRENT_LIST_DIR}/libcurl.4.tbd)
set(CMAKE_INSTALL_LIBDIR lib)  # not asked for the pointer size, which CMake cannot find out from zig
