# Run by CPack before it makes the packages: Debian wants change logs and man pages compressed,
# without a time of their own.
file(GLOB_RECURSE texts ${CPACK_TEMPORARY_DIRECTORY}/*)
list(FILTER texts INCLUDE REGEX "/(man/man[13]/[^/]*|changelog\\.Debian)$")
foreach(text ${texts})
  execute_process(COMMAND gzip -9n ${text} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
