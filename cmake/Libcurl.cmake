# libcurl with what the tool needs, from its source, and the libraries that it calls: AWS-LC for TLS, c-ares for names,
# nghttp2 for HTTP/2, zlib. docs/performance.md says what is left out and what that means for a user.
enable_language(C)

# The newest of each that cmake/sources.txt lists, from where scripts/sources lays it down: build/sources/<name>-<version>.
# -DWEBREQ_SOURCE_<NAME>= gives another folder.
set(libraries curl aws-lc c-ares nghttp2 zlib)
file(STRINGS cmake/sources.txt pinned REGEX "^[^#]")
foreach(line IN LISTS pinned)
  string(REGEX MATCH "^([^ ]+) +([^ ]+)" line "${line}")
  set(${CMAKE_MATCH_1}_version ${CMAKE_MATCH_2})
endforeach()
foreach(library IN LISTS libraries)
  string(MAKE_C_IDENTIFIER WEBREQ_SOURCE_${library} folder)
  string(TOUPPER ${folder} folder)
  if(DEFINED ${folder})
    set(${library}_source ${${folder}})
  else()
    set(${library}_source ${PROJECT_SOURCE_DIR}/build/sources/${library}-${${library}_version})
  endif()
  if(NOT EXISTS ${${library}_source})
    message(FATAL_ERROR "There is no ${${library}_source}: run scripts/setup static.")
  endif()
  add_compile_options(-ffile-prefix-map=${${library}_source}=${library})
endforeach()

# In functions, because the variables are the libraries' own: each sets options, plain variables do not stay.
set(CMAKE_POLICY_DEFAULT_CMP0077 NEW)
set(CMAKE_POLICY_DEFAULT_CMP0126 NEW)

macro(add_source library)
  foreach(option IN ITEMS BUILD_SHARED_LIBS BUILD_TESTING CMAKE_COMPILE_WARNING_AS_ERROR)
    set(${option} OFF)
  endforeach()
  add_compile_options(-w)
  add_subdirectory(${${library}_source} ${library} EXCLUDE_FROM_ALL SYSTEM)
endmacro()

function(add_aws_lc)
  set(DISABLE_GO ON)
  set(DISABLE_PERL ON)  # what they would generate is in the source
  set(DISABLE_CPU_JITTER_ENTROPY ON)
  set(BUILD_TOOL OFF)
  add_source(aws-lc)
endfunction()

function(add_c_ares)
  set(CARES_STATIC ON)
  foreach(option IN ITEMS CARES_SHARED CARES_INSTALL CARES_BUILD_TOOLS CARES_THREADS)
    set(${option} OFF)
  endforeach()
  add_source(c-ares)
endfunction()

function(add_nghttp2)
  set(ENABLE_LIB_ONLY ON)
  set(BUILD_STATIC_LIBS ON)
  set(ENABLE_DOC OFF)
  foreach(package IN ITEMS Jansson Jemalloc Libevent Libnghttp3 Libngtcp2 LibXml2 OpenSSL Python3 Systemd)
    set(CMAKE_DISABLE_FIND_PACKAGE_${package} ON)
  endforeach()
  add_source(nghttp2)
endfunction()

# The crate has zlib's own files without its build.
function(add_zlib)
  list(TRANSFORM ARGV PREPEND ${zlib_source}/ OUTPUT_VARIABLE files)
  list(TRANSFORM files APPEND .c)
  add_library(zlib STATIC EXCLUDE_FROM_ALL ${files})
  target_compile_options(zlib PRIVATE -w)
  target_compile_definitions(zlib PRIVATE HAVE_UNISTD_H)
  target_include_directories(zlib SYSTEM PUBLIC ${zlib_source})
endfunction()

# Has libcurl find a library that is built here: use_library(<name> <name of the target> <target> <include folder>)
macro(use_library name)
endmacro()

function(add_libcurl)
  foreach(option IN ITEMS
      CURL_USE_OPENSSL CURL_ZLIB ENABLE_ARES ENABLE_IPV6 ENABLE_UNIX_SOCKETS USE_NGHTTP2
      # Protocols other than HTTP, HTTPS and file.
      CURL_DISABLE_DICT CURL_DISABLE_FTP CURL_DISABLE_GOPHER CURL_DISABLE_IMAP CURL_DISABLE_IPFS CURL_DISABLE_LDAP
      CURL_DISABLE_LDAPS CURL_DISABLE_MQTT CURL_DISABLE_POP3 CURL_DISABLE_RTSP CURL_DISABLE_SMTP CURL_DISABLE_TELNET
      CURL_DISABLE_TFTP CURL_DISABLE_WEBSOCKETS
      # What takes an option of libcurl that the tool never sets.
      CURL_DISABLE_ALTSVC CURL_DISABLE_AWS CURL_DISABLE_BEARER_AUTH CURL_DISABLE_COOKIES CURL_DISABLE_DIGEST_AUTH
      CURL_DISABLE_DOH CURL_DISABLE_FORM_API CURL_DISABLE_GETOPTIONS CURL_DISABLE_HEADERS_API CURL_DISABLE_HSTS
      CURL_DISABLE_KERBEROS_AUTH CURL_DISABLE_MIME CURL_DISABLE_NEGOTIATE_AUTH CURL_DISABLE_NETRC
      CURL_DISABLE_PROGRESS_METER CURL_DISABLE_SHA512_256 CURL_DISABLE_SHUFFLE_DNS CURL_DISABLE_VERBOSE_STRINGS
      HAVE_AWSLC HAVE_SSL_SET0_WBIO)  # as AWS-LC has it: libcurl would try to link with what isn't built yet
    set(${option} ON)
  endforeach()
  foreach(option IN ITEMS
      BUILD_CURL_EXE BUILD_EXAMPLES BUILD_LIBCURL_DOCS BUILD_MISC_DOCS ENABLE_CURL_MANUAL CURL_ENABLE_EXPORT_TARGET
      CURL_USE_CMAKECONFIG CURL_USE_PKGCONFIG PICKY_COMPILER
      CURL_BROTLI CURL_ZSTD CURL_USE_GSSAPI CURL_USE_LIBPSL CURL_USE_LIBSSH2 USE_LIBIDN2
      HAVE_DES_ECB_ENCRYPT)
    set(${option} OFF)
  endforeach()
  set(CURL_DISABLE_INSTALL ON)
  set(CMAKE_DISABLE_FIND_PACKAGE_Perl ON)
  set(CURL_CA_BUNDLE none)  # no certificate is verified
  set(CURL_CA_PATH none)
  set(OPENSSL_INCLUDE_DIR ${aws-lc_source}/include)
  set(OPENSSL_CRYPTO_LIBRARY crypto)
  set(OPENSSL_SSL_LIBRARY ssl)
  set(CARES_INCLUDE_DIR ${c-ares_source}/include)
  set(CARES_LIBRARY c-ares)
  set(NGHTTP2_INCLUDE_DIR ${nghttp2_source}/lib/includes)
  set(NGHTTP2_LIBRARY nghttp2_static)
  set(ZLIB_INCLUDE_DIR ${zlib_source})
  set(ZLIB_LIBRARY zlib)
  add_source(curl)
endfunction()

add_aws_lc()
add_library(OpenSSL::Crypto ALIAS crypto)
add_library(OpenSSL::SSL ALIAS ssl)
add_c_ares()
add_nghttp2()
add_zlib(adler32 crc32 inffast inflate inftrees zutil)
add_library(ZLIB::ZLIB ALIAS zlib)
add_libcurl()
