# What is linked into the executable, for machines: webreq-static.spdx.json, SPDX 2.3, made from what deps/ pins and
# from what the libraries that come with zig say of themselves.
file(READ deps/requirements.txt requirements)
string(REGEX MATCH "ziglang==([^ ]+)([ \\\n]+--hash=sha256:[0-9a-f]+)+" pin "${requirements}")
set(zig_version ${CMAKE_MATCH_1})
string(REGEX MATCHALL "sha256:[0-9a-f]+" zig_sums "${pin}")
list(TRANSFORM zig_sums REPLACE "sha256:" "")
file(READ ${zig_folder}/lib/libc/musl/src/internal/version.h musl_version)
string(REGEX REPLACE ".*\"(.+)\".*" "\\1" musl_version "${musl_version}")
file(READ ${zig_folder}/lib/libcxx/include/__config llvm_version)
string(REGEX REPLACE ".*define _LIBCPP_VERSION ([0-9][0-9])0?([0-9]+)00\n.*" "\\1.\\2" llvm_version "${llvm_version}")

# "list_package name version license origin sum...": the origin is what was fetched, and has one of these SHA-256 sums.
function(list_package name version license origin)
  list(TRANSFORM ARGN REPLACE ".+" [[{ "algorithm": "SHA256", "checksumValue": "\0" }]])
  list(JOIN ARGN ", " sums)
  string(REPLACE "+" "x" id ${name})
  string(CONFIGURE [[,
    {
      "SPDXID": "SPDXRef-@id@",
      "name": "@name@",
      "versionInfo": "@version@",
      "licenseConcluded": "@license@",
      "licenseDeclared": "@license@",
      "downloadLocation": "NOASSERTION",
      "sourceInfo": "@origin@",
      "filesAnalyzed": false,
      "checksums": [@sums@]
    }]] package @ONLY)
  string(CONFIGURE [[,
    { "spdxElementId": "SPDXRef-webreq", "relationshipType": "STATIC_LINK", "relatedSpdxElement": "SPDXRef-@id@" }]]
    relationship @ONLY)
  set(packages "${packages}${package}" PARENT_SCOPE)
  set(relationships "${relationships}${relationship}" PARENT_SCOPE)
endfunction()

foreach(row IN ITEMS "curl:curl" "aws-lc:Apache-2.0 AND ISC AND MIT" "c-ares:MIT" "nghttp2:MIT")
  string(REGEX MATCH "(.+):(.+)" row ${row})
  set(name ${CMAKE_MATCH_1})
  list_package(${name} ${${name}_version} ${CMAKE_MATCH_2} "the crate ${${name}_crate}" ${${name}_sum})
endforeach()
set(zig "the wheel ziglang ${zig_version} for the machine that compiles")
list_package(musl ${musl_version} MIT "${zig}" ${zig_sums})
foreach(name IN ITEMS libc++ libc++abi libunwind)
  list_package(${name} ${llvm_version} "Apache-2.0 WITH LLVM-exception" "${zig}" ${zig_sums})
endforeach()
list_package(compiler-rt ${zig_version} MIT "${zig}" ${zig_sums})

string(UUID id NAMESPACE 6ba7b811-9dad-11d1-80b4-00c04fd430c8 NAME "${PROJECT_VERSION}${packages}" TYPE SHA1)
string(TIMESTAMP created %Y-%m-%dT%H:%M:%SZ UTC)  # $SOURCE_DATE_EPOCH, if there is one
file(CONFIGURE OUTPUT webreq-static.spdx.json @ONLY CONTENT [[{
  "spdxVersion": "SPDX-2.3",
  "dataLicense": "CC0-1.0",
  "SPDXID": "SPDXRef-DOCUMENT",
  "name": "webreq-static-@PROJECT_VERSION@",
  "documentNamespace": "https://spdx.org/spdxdocs/webreq-static-@PROJECT_VERSION@-@id@",
  "creationInfo": { "created": "@created@", "creators": ["Organization: The webreq authors"] },
  "packages": [
    {
      "SPDXID": "SPDXRef-webreq",
      "name": "webreq-static",
      "versionInfo": "@PROJECT_VERSION@",
      "licenseConcluded": "MIT",
      "licenseDeclared": "MIT",
      "downloadLocation": "NOASSERTION",
      "filesAnalyzed": false
    }@packages@
  ],
  "relationships": [
    { "spdxElementId": "SPDXRef-DOCUMENT", "relationshipType": "DESCRIBES", "relatedSpdxElement": "SPDXRef-webreq" }@relationships@
  ]
}
]])
install(FILES ${PROJECT_BINARY_DIR}/webreq-static.spdx.json DESTINATION ${documents})
