# The warnings for all our own code, including tests and tools.
add_library(nvrhttpcurl_warnings INTERFACE)
target_compile_options(
  nvrhttpcurl_warnings
  INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${NVRHTTPCURL_WERROR}>:-Werror>)

# GCC's instrumentation hides initialisations from this warning, also in the standard library.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_FLAGS MATCHES "-fsanitize")
  target_compile_options(nvrhttpcurl_warnings INTERFACE -Wno-maybe-uninitialized)
endif()
