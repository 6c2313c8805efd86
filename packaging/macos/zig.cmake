# Toolchain file: builds one slice of the macOS executable with zig, from Linux. MACOS_SLICE is x86_64 or arm64,
# ZIG the compiler, CURL_INCLUDE_DIR a folder with nothing but curl/ (libcurl's headers) in it.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MACOS_SLICE ZIG CURL_INCLUDE_DIR)
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR ${MACOS_SLICE})

set(target_x86_64 x86_64-macos.10.13)
set(target_arm64 aarch64-macos.11.0)
set(target ${target_${MACOS_SLICE}})

set(CMAKE_CXX_COMPILER ${ZIG} c++)
set(CMAKE_CXX_COMPILER_TARGET ${target})
find_program(CMAKE_INSTALL_NAME_TOOL NAMES llvm-install-name-tool llvm-install-name-tool-14 REQUIRED)
find_program(CMAKE_AR NAMES llvm-ar llvm-ar-14 REQUIRED)
find_program(CMAKE_RANLIB NAMES llvm-ranlib llvm-ranlib-14 REQUIRED)

# zig's linker signs arm64 by itself, and x86_64 when it is given entitlements. libc++ becomes a part of the executable.
set(sign_x86_64 "--entitlements ${CMAKE_CURRENT_LIST_DIR}/no-entitlements.plist")
set(CMAKE_CXX_LINK_EXECUTABLE
  "${ZIG} build-exe -target ${target} -O ReleaseSmall -fstrip -dead_strip ${sign_${MACOS_SLICE}} -femit-bin=<TARGET> <OBJECTS> <LINK_LIBRARIES> -lc++ -lc")

set(CURL_LIBRARY ${CMAKE_CURRENT_LIST_DIR}/libcurl.4.tbd)
set(CMAKE_INSTALL_LIBDIR lib)  # not asked for the pointer size, which CMake cannot find out from zig
