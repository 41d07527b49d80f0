# Warnings of all our own code, tests and tools included.
add_library(nvrhttpcurl_warnings INTERFACE)
target_compile_options(
  nvrhttpcurl_warnings
  INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${NVRHTTPCURL_WERROR}>:-Werror>)

# GCC's instrumentation hides initialisations from this one warning, the standard library's included.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  target_compile_options(nvrhttpcurl_warnings INTERFACE -Wno-maybe-uninitialized)
endif()
