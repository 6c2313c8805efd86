# libcurl, built from its source with what the tool needs and linked statically together with OpenSSL, nghttp2 and idn2.
# docs/performance.md says what is left out and what that means for a user.
include(FetchContent)

set(release curl-8.21.0.tar.gz)
set(release_url https://curl.se/download/${release})
set(release_hash d9b327997999045a24cda50f3983e69e51c516bd8be6ef9842fc7f99135e33bb)

set(debian_source ${PROJECT_SOURCE_DIR}/build/curl-source/curl)  # there if scripts/curl-source has run
if(NOT FETCHCONTENT_SOURCE_DIR_CURL AND EXISTS ${debian_source})
  set(FETCHCONTENT_SOURCE_DIR_CURL ${debian_source})
endif()

# FetchContent's own download fails with pages of log instead of one sentence.
set(archive ${PROJECT_BINARY_DIR}/${release})
if(NOT FETCHCONTENT_SOURCE_DIR_CURL AND NOT EXISTS ${archive})
  file(DOWNLOAD ${release_url} ${archive}.part STATUS status INACTIVITY_TIMEOUT 20)
  if(NOT status MATCHES "^0;")
    message(FATAL_ERROR "No source of libcurl can be reached: run scripts/curl-source, which takes Debian's.")
  endif()
  file(RENAME ${archive}.part ${archive})
endif()

# A SOURCE_SUBDIR without a CMakeLists.txt: it only unpacks, so that add_subdirectory() can take its own options.
FetchContent_Declare(CURL URL ${archive} URL_HASH SHA256=${release_hash} DOWNLOAD_EXTRACT_TIMESTAMP ON
  SOURCE_SUBDIR none)
FetchContent_MakeAvailable(CURL)

# Both are names of libcurl's own: 7.88 links "idn2", 8.x what LIBIDN2_LIBRARY says.
find_library(IDN2_ARCHIVE libidn2.a REQUIRED)
find_library(UNISTRING_ARCHIVE libunistring.a REQUIRED)
add_library(idn2 STATIC IMPORTED)
set_target_properties(idn2 PROPERTIES IMPORTED_LOCATION ${IDN2_ARCHIVE} INTERFACE_LINK_LIBRARIES ${UNISTRING_ARCHIVE})
set(LIBIDN2_LIBRARY idn2)

# In a function, because the variables are libcurl's alone.
function(add_libcurl)
  set(CMAKE_POLICY_DEFAULT_CMP0077 NEW)  # plain variables set options,
  set(CMAKE_POLICY_DEFAULT_CMP0126 NEW)  # and those of more than two states
  set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
  foreach(option IN ITEMS
      OPENSSL_USE_STATIC_LIBS CURL_USE_OPENSSL USE_NGHTTP2 USE_LIBIDN2 ENABLE_IPV6 ENABLE_THREADED_RESOLVER
      # Protocols other than HTTP, HTTPS and file.
      CURL_DISABLE_DICT CURL_DISABLE_FTP CURL_DISABLE_GOPHER CURL_DISABLE_IMAP CURL_DISABLE_IPFS CURL_DISABLE_LDAP
      CURL_DISABLE_LDAPS CURL_DISABLE_MQTT CURL_DISABLE_POP3 CURL_DISABLE_RTSP CURL_DISABLE_SMB CURL_DISABLE_SMTP
      CURL_DISABLE_TELNET CURL_DISABLE_TFTP CURL_DISABLE_WEBSOCKETS
      # What takes an option of libcurl that the tool never sets.
      CURL_DISABLE_ALTSVC CURL_DISABLE_AWS CURL_DISABLE_BEARER_AUTH CURL_DISABLE_COOKIES CURL_DISABLE_CRYPTO_AUTH
      CURL_DISABLE_DIGEST_AUTH CURL_DISABLE_DOH CURL_DISABLE_FORM_API CURL_DISABLE_GETOPTIONS
      CURL_DISABLE_HEADERS_API CURL_DISABLE_HSTS CURL_DISABLE_KERBEROS_AUTH CURL_DISABLE_MIME
      CURL_DISABLE_NEGOTIATE_AUTH CURL_DISABLE_NETRC CURL_DISABLE_NTLM CURL_DISABLE_PROGRESS_METER
      CURL_DISABLE_SHUFFLE_DNS CURL_DISABLE_SRP CURL_DISABLE_VERBOSE_STRINGS)
    set(${option} ON)
  endforeach()
  foreach(option IN ITEMS
      BUILD_CURL_EXE BUILD_EXAMPLES BUILD_LIBCURL_DOCS BUILD_MISC_DOCS BUILD_SHARED_LIBS BUILD_TESTING
      CMAKE_COMPILE_WARNING_AS_ERROR CURL_ENABLE_EXPORT_TARGET CURL_USE_PKGCONFIG PICKY_COMPILER
      CURL_BROTLI CURL_ZLIB CURL_ZSTD  # no request offers an encoding, so none is decoded
      CURL_USE_GSSAPI CURL_USE_LIBPSL CURL_USE_LIBSSH2 ENABLE_UNIX_SOCKETS)
    set(${option} OFF)
  endforeach()
  add_subdirectory(${curl_SOURCE_DIR} ${curl_BINARY_DIR} EXCLUDE_FROM_ALL SYSTEM)
endfunction()

set(own_testing ${BUILD_TESTING})
add_libcurl()
set(BUILD_TESTING ${own_testing} CACHE BOOL "Build the tests" FORCE)  # 7.88 stores its own value there
