# What "cmake --install" and the packages contain; the components are those of the packages.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/nvrhttpcurl)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(
  TARGETS nvrhttpcurl
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
          COMPONENT runtime
          NAMELINK_COMPONENT development)
install(
  DIRECTORY include/nvrhttpcurl
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)

# Both find their prefix at run time, so that a tree may be moved or be a sysroot's.
file(RELATIVE_PATH prefix_of_pkgconfig /${pkgconfig_dir} /.)
configure_file(cmake/nvrhttpcurl.pc.in nvrhttpcurl.pc @ONLY)
install(
  FILES ${PROJECT_BINARY_DIR}/nvrhttpcurl.pc
  DESTINATION ${pkgconfig_dir}
  COMPONENT development)
configure_package_config_file(
  cmake/nvrhttpcurlConfig.cmake.in nvrhttpcurlConfig.cmake
  INSTALL_DESTINATION ${package_dir}
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file(nvrhttpcurlConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/nvrhttpcurlConfig.cmake ${PROJECT_BINARY_DIR}/nvrhttpcurlConfigVersion.cmake
  DESTINATION ${package_dir}
  COMPONENT development)

# A library that was built over the host platform takes it along, in a folder of its own where
# only the library and the nvrhttp program look: its files have the names of the device's. One
# that was built over the device's platform expects that where the device has it.
if(NVRHTTPCURL_HOST_PLATFORM AND NVRHTTPCURL_INSTALL_HOST_PLATFORM)
  set_target_properties(nvrhttpcurl PROPERTIES INSTALL_RPATH "$ORIGIN/nvrhttpcurl")
  install(
    TARGETS osp appbase
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/nvrhttpcurl
            COMPONENT runtime)
endif()

if(NVRHTTPCURL_BUILD_TOOLS AND NVRHTTPCURL_INSTALL_HOST_PLATFORM)
  file(RELATIVE_PATH libraries /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(nvrhttp PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries};$ORIGIN/${libraries}/nvrhttpcurl")
  install(
    TARGETS nvrhttp
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
            COMPONENT tools)
  install(
    FILES tools/nvrhttp/completion.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME nvrhttp
    COMPONENT tools)
endif()

# Man pages of commands come with the tools, those of functions with the headers.
if(IS_DIRECTORY ${PROJECT_SOURCE_DIR}/man)
  install(
    DIRECTORY man/
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT tools
    FILES_MATCHING
    PATTERN "*.1")
  install(
    DIRECTORY man/
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
    COMPONENT development
    FILES_MATCHING
    PATTERN "*.3")
endif()
