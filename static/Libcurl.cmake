# libcurl with what the tool needs, and the libraries that it calls: AWS-LC for TLS, c-ares for names, nghttp2 for
# HTTP/2; all from their sources. README.md here says what is left out.
enable_language(C)

# Builds the newest version listed in deps/sources.txt, from the folder where deps/fetch lays it down, or the folder
# that -DWEBREQ_CURL_SOURCE=, -DWEBREQ_AWS_LC_SOURCE= and so on name.
file(STRINGS deps/sources.txt lines REGEX "^[^#]")
foreach(line IN LISTS lines)
  string(REGEX MATCH "^([^ ]+) +([^ ]+)" pin "${line}")
  set(${CMAKE_MATCH_1}_source ${PROJECT_SOURCE_DIR}/build/sources/${CMAKE_MATCH_1}-${CMAKE_MATCH_2})
endforeach()
foreach(library IN ITEMS curl aws-lc c-ares nghttp2)
  string(TOUPPER "WEBREQ_${library}_SOURCE" variable)
  string(REPLACE "-" "_" variable ${variable})
  if(DEFINED ${variable})
    set(${library}_source ${${variable}})
  endif()
  if(NOT EXISTS ${${library}_source})
    message(FATAL_ERROR "There is no source of ${library} in ${${library}_source}: run scripts/setup static.")
  endif()
  add_compile_options(-ffile-prefix-map=${${library}_source}=${library})
endforeach()
add_compile_options(-ffunction-sections -fdata-sections)  # for the linker to leave out what nothing calls

# What follows is in functions, so that the variables affect these libraries alone.
set(CMAKE_POLICY_DEFAULT_CMP0077 NEW)  # plain variables set options,
set(CMAKE_POLICY_DEFAULT_CMP0126 NEW)  # and those of more than two states

function(add_library_source library)
  set(BUILD_SHARED_LIBS OFF)
  set(CMAKE_COMPILE_WARNING_AS_ERROR OFF)
  foreach(language IN ITEMS ASM C CXX)
    string(APPEND CMAKE_${language}_FLAGS " -w")
  endforeach()
  add_subdirectory(${${library}_source} ${library} EXCLUDE_FROM_ALL SYSTEM)
endfunction()

function(add_aws_lc)
  set(DISABLE_GO ON)
  set(DISABLE_PERL ON)  # what both would generate is there
  set(DISABLE_CPU_JITTER_ENTROPY ON)  # the kernel's randomness is enough
  set(BUILD_TESTING OFF)
  set(BUILD_TOOL OFF)
  add_library_source(aws-lc)
  add_library(OpenSSL::Crypto ALIAS crypto)
  add_library(OpenSSL::SSL ALIAS ssl)
endfunction()

function(add_c_ares)
  set(CARES_STATIC ON)
  foreach(option IN ITEMS CARES_BUILD_TOOLS CARES_INSTALL CARES_SHARED CARES_THREADS)
    set(${option} OFF)
  endforeach()
  add_library_source(c-ares)
endfunction()

function(add_nghttp2)
  set(BUILD_STATIC_LIBS ON)
  set(ENABLE_LIB_ONLY ON)
  set(ENABLE_DOC OFF)
  foreach(package IN ITEMS Jansson Jemalloc Libevent Libnghttp3 Libngtcp2 LibXml2 OpenSSL Python3 Systemd)
    set(CMAKE_DISABLE_FIND_PACKAGE_${package} ON)
  endforeach()
  add_library_source(nghttp2)
endfunction()

function(add_libcurl)
  foreach(option IN ITEMS
      CURL_USE_OPENSSL ENABLE_ARES ENABLE_IPV6 ENABLE_UNIX_SOCKETS USE_NGHTTP2
      HAVE_AWSLC HAVE_SSL_SET0_WBIO  # libcurl would find out by linking with what isn't built yet
      # Protocols other than HTTP, HTTPS and file.
      CURL_DISABLE_DICT CURL_DISABLE_FTP CURL_DISABLE_GOPHER CURL_DISABLE_IMAP CURL_DISABLE_LDAP
      CURL_DISABLE_LDAPS CURL_DISABLE_MQTT CURL_DISABLE_POP3 CURL_DISABLE_RTSP CURL_DISABLE_SMTP CURL_DISABLE_TELNET
      CURL_DISABLE_TFTP CURL_DISABLE_WEBSOCKETS
      # What takes an option of libcurl that the tool never sets.
      CURL_DISABLE_ALTSVC CURL_DISABLE_AWS CURL_DISABLE_BEARER_AUTH CURL_DISABLE_COOKIES CURL_DISABLE_DIGEST_AUTH
      CURL_DISABLE_DOH CURL_DISABLE_FORM_API CURL_DISABLE_GETOPTIONS CURL_DISABLE_HSTS CURL_DISABLE_INSTALL
      CURL_DISABLE_KERBEROS_AUTH CURL_DISABLE_MIME CURL_DISABLE_NEGOTIATE_AUTH CURL_DISABLE_NETRC
      CURL_DISABLE_PROGRESS_METER CURL_DISABLE_SHA512_256 CURL_DISABLE_SHUFFLE_DNS CURL_DISABLE_VERBOSE_STRINGS)
    set(${option} ON)
  endforeach()
  foreach(option IN ITEMS
      BUILD_CURL_EXE BUILD_EXAMPLES BUILD_LIBCURL_DOCS BUILD_MISC_DOCS BUILD_TESTING CURL_ENABLE_EXPORT_TARGET
      CURL_USE_CMAKECONFIG CURL_USE_PKGCONFIG ENABLE_CURL_MANUAL HAVE_DES_ECB_ENCRYPT PICKY_COMPILER
      CURL_BROTLI CURL_ZLIB CURL_ZSTD  # no request offers an encoding, so none is decoded
      CURL_USE_GSSAPI CURL_USE_LIBPSL CURL_USE_LIBSSH2 USE_LIBIDN2)
    set(${option} OFF)
  endforeach()
  set(CURL_CA_BUNDLE /etc/ssl/certs/ca-certificates.crt)  # as Debian's libcurl has it: an HTTPS proxy is verified
  set(CURL_CA_PATH none)
  set(CMAKE_DISABLE_FIND_PACKAGE_Perl ON)  # for documents, which the crate leaves out
  set(CARES_INCLUDE_DIR ${c-ares_source}/include)
  set(CARES_LIBRARY c-ares)
  set(NGHTTP2_INCLUDE_DIR ${nghttp2_source}/lib/includes)
  set(NGHTTP2_LIBRARY nghttp2_static)
  set(OPENSSL_INCLUDE_DIR ${aws-lc_source}/include)
  set(OPENSSL_CRYPTO_LIBRARY crypto)
  set(OPENSSL_SSL_LIBRARY ssl)
  add_library_source(curl)
endfunction()

# Calls of libcurl's that lead to functions of ours; names.c says why. It uses c-ares's private header.
function(redirect_calls)
  add_library(redirected STATIC static/names.c)
  target_compile_options(redirected PRIVATE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow -Wcast-qual)
  target_compile_definitions(redirected PRIVATE $<TARGET_PROPERTY:c-ares,COMPILE_DEFINITIONS>)
  target_include_directories(redirected SYSTEM PRIVATE
    $<TARGET_PROPERTY:c-ares,INCLUDE_DIRECTORIES> ${curl_source}/include)
  target_link_libraries(redirected PRIVATE c-ares)
  target_link_libraries(libcurl_static PRIVATE redirected)
  target_compile_definitions(libcurl_static PRIVATE
    ares_getaddrinfo=webreq_ares_getaddrinfo ares_init_options=webreq_ares_init_options)
endfunction()

# Replaces musl's default allocator, which maps and unmaps memory for each group of blocks (77 times in a small run over
# TLS), by its older one, which extends one heap; zig has the source.
function(add_allocator)
  set(musl ${zig_folder}/lib/libc/musl)
  list(TRANSFORM ARGN PREPEND ${musl}/src/malloc/oldmalloc/)
  add_library(allocator STATIC ${ARGN})
  target_compile_options(allocator PRIVATE -std=c99 -ffreestanding -fno-strict-aliasing -w)
  target_include_directories(allocator PRIVATE
    ${musl}/arch/${CMAKE_SYSTEM_PROCESSOR} ${musl}/arch/generic ${musl}/src/include ${musl}/src/internal)
  target_link_libraries(libcurl_static PRIVATE allocator)
endfunction()

add_aws_lc()
add_c_ares()
add_nghttp2()
add_libcurl()
redirect_calls()
add_allocator(malloc.c aligned_alloc.c malloc_usable_size.c)
