# The library's objects, and a static library through which tests reach every function and bring
# a platform of their own. The shared library, which exports just the API, is made in abi/.

set(NVRHTTPCURL_DEFAULT_SELFTEST_URL "https://192.168.0.200:3789/NVR/FCACheckTempNtf")
set(NVRHTTPCURL_SELFTEST_URL
    "${NVRHTTPCURL_DEFAULT_SELFTEST_URL}"
    CACHE STRING "Endpoint of the sendbycurltest command without a URL")

add_library(
  nvrhttpcurl_objects OBJECT
  support/hcc_list.cpp
  support/hcc_log.cpp
  support/hcc_sem.cpp
  support/hcc_tools.cpp
  engine/httpcurlclient_checkuri.cpp
  engine/httpcurlclient_execute.cpp
  engine/httpcurlclient_instance.cpp
  engine/httpcurlclient_request.cpp
  engine/httpcurlclient_response.cpp
  engine/httpcurlclient_wakeup.cpp
  engine/httpcurlclt_worker.cpp
  sendbycurl/sendbycurl_direct.cpp
  sendbycurl/sendbycurl_engine.cpp
  sendbycurl/sendbycurl_selftest.cpp
  sendbycurl/sendbycurl_setup.cpp)
set_target_properties(
  nvrhttpcurl_objects
  PROPERTIES CXX_STANDARD 17
             CXX_STANDARD_REQUIRED ON
             CXX_EXTENSIONS ON
             CXX_VISIBILITY_PRESET hidden
             VISIBILITY_INLINES_HIDDEN ON
             POSITION_INDEPENDENT_CODE ON)
# Without exceptions, RTTI and guarded statics nothing needs the C++ runtime. The warning: without
# its header a definition would silently get C++ linkage.
target_compile_options(nvrhttpcurl_objects PRIVATE -fno-exceptions -fno-rtti -fno-threadsafe-statics
                                                   -Wmissing-declarations)
# What makes the library smaller. Nothing is unwound: the tables for it would be a tenth of it
# (debuggers have their own). Nobody replaces its functions within it, or needs them aligned to
# lines of the cache, or atomic operations of the newest processors.
target_compile_options(
  nvrhttpcurl_objects
  PRIVATE -fno-unwind-tables -fno-asynchronous-unwind-tables -fno-semantic-interposition
          $<$<CXX_COMPILER_ID:GNU>:-fno-align-functions;-fno-align-jumps;-fno-align-loops>
          $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},aarch64>:-mno-outline-atomics>)
set_source_files_properties(
  sendbycurl/sendbycurl_selftest.cpp PROPERTIES COMPILE_DEFINITIONS
                                                NVRHTTPCURL_SELFTEST_URL="${NVRHTTPCURL_SELFTEST_URL}")
target_include_directories(nvrhttpcurl_objects PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
target_link_libraries(nvrhttpcurl_objects PRIVATE nvrhttpcurl_warnings CURL::libcurl PkgConfig::CJSON)

add_library(nvrhttpcurl_static STATIC $<TARGET_OBJECTS:nvrhttpcurl_objects>)
set_target_properties(nvrhttpcurl_static PROPERTIES OUTPUT_NAME nvrhttpcurl LINKER_LANGUAGE CXX)
target_include_directories(nvrhttpcurl_static PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
target_link_libraries(nvrhttpcurl_static PUBLIC CURL::libcurl PkgConfig::CJSON)
