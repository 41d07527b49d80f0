# Run by CPack before it makes the packages: Debian wants change logs and man pages compressed,
# without a time of their own.
file(GLOB_RECURSE texts ${CPACK_TEMPORARY_DIRECTORY}/*/changelog.Debian ${CPACK_TEMPORARY_DIRECTORY}/*/man/*.[13])
foreach(text ${texts})
  execute_process(COMMAND gzip -9n ${text} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
