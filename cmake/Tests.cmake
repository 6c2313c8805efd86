# Unit tests beside the code, linked with a recording libcurl; end-to-end tests of the built tool.
find_package(GTest REQUIRED)
include(GoogleTest)
