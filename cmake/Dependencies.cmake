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

# The device's platform libraries. Without these the linker looks for -losp and -lappbase; as files
# they are linked by name alone, since a library without a SONAME would else be recorded with its
# path.
if(NOT NVRHTTPCURL_HOST_PLATFORM)
  foreach(library osp appbase)
    string(TOUPPER ${library} upper)
    set(${upper}_LIBRARY
        ""
        CACHE FILEPATH "The device's lib${library}.so")
    if(${upper}_LIBRARY AND NOT TARGET ${library})
      add_library(${library} SHARED IMPORTED)
      set_target_properties(${library} PROPERTIES IMPORTED_LOCATION "${${upper}_LIBRARY}" IMPORTED_NO_SONAME TRUE)
    endif()
  endforeach()
endif()
