find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(CURL REQUIRED)

# A worker sleeps in curl_multi_wait. Before 7.66.0 libcurl's threaded resolver gives that call
# no descriptor to wait on, so the worker would not notice that a host name has been resolved.
if(CURL_VERSION_STRING VERSION_LESS 7.66.0)
  message(
    FATAL_ERROR
      "nvrhttpcurl needs libcurl 7.66.0 or later, found ${CURL_VERSION_STRING}: "
      "the resolver thread of an older one gives a worker's curl_multi_wait nothing to wait on")
endif()

pkg_check_modules(CJSON REQUIRED IMPORTED_TARGET libcjson)
