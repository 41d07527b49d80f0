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

# Both find their prefix at run time, so that a tree may be moved or be a sysroot's; not where a
# folder was given as an absolute path.
set(pkgconfig_prefix ${CMAKE_INSTALL_PREFIX})
if(NOT IS_ABSOLUTE ${CMAKE_INSTALL_LIBDIR})
  file(RELATIVE_PATH pkgconfig_prefix /${pkgconfig_dir} /.)
  set(pkgconfig_prefix "\${pcfiledir}/${pkgconfig_prefix}")
endif()
foreach(folder LIBDIR INCLUDEDIR)
  set(pkgconfig_${folder} "\${prefix}/${CMAKE_INSTALL_${folder}}")
  if(IS_ABSOLUTE ${CMAKE_INSTALL_${folder}})
    set(pkgconfig_${folder} ${CMAKE_INSTALL_${folder}})
  endif()
endforeach()
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
  install(
    FILES man/nvrhttp.1 man/nvrhttp-console.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
    COMPONENT tools)
endif()

# The man pages of functions, and the guides that headers and man pages name.
file(GLOB pages man/*.3)
foreach(page ${pages})
  get_filename_component(name ${page} NAME_WE)
  file(STRINGS ${page} functions REGEX "^\\.Nm [A-Za-z_]+( ,)?$")
  foreach(function ${functions})
    string(REGEX REPLACE "^\\.Nm ([A-Za-z_]+).*" "\\1" function ${function})
    file(CONFIGURE OUTPUT man/${function}.3 CONTENT ".so man3/${name}.3\n")
    list(APPEND pages ${PROJECT_BINARY_DIR}/man/${function}.3)
  endforeach()
endforeach()
install(
  FILES ${pages}
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
  COMPONENT development)
install(
  FILES README.md CHANGELOG.md ${PROJECT_BINARY_DIR}/nvrhttpcurl.spdx
  DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT development)
install(
  DIRECTORY docs examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT development
  FILES_MATCHING
  PATTERN "*.md"
  PATTERN "*.svg"
  PATTERN "*.c"
  PATTERN "*.cpp")
