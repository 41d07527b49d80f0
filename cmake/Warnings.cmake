# Warnings of all our own code, tests and tools included.
add_library(nvrhttpcurl_warnings INTERFACE)
target_compile_options(
  nvrhttpcurl_warnings
  INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${NVRHTTPCURL_WERROR}>:-Werror>)
