# The Debian packages, one for each component; scripts/packages makes them.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "nvrhttpcurl developers <developers@nvrhttpcurl.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/CompressDocs.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}/platform/host)

# A plain "cmake --install" leaves these files out.
function(install_for_packages file folder name component)
  install(FILES ${file} DESTINATION ${folder} RENAME ${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endfunction()

function(describe_package component name section summary)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  string(JOIN "\n" description ${summary} ${ARGN})
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${description}" PARENT_SCOPE)
  set(folder ${CMAKE_INSTALL_DATADIR}/doc/${name})
  install_for_packages(packaging/copyright ${folder} copyright ${component})
  install_for_packages(packaging/changelog ${folder} changelog.Debian ${component})
  if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/${name}.lintian-overrides)
    install_for_packages(packaging/${name}.lintian-overrides ${CMAKE_INSTALL_DATADIR}/lintian/overrides ${name}
                         ${component})
  endif()
endfunction()

set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
configure_file(packaging/shlibs.in shlibs @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/shlibs ${PROJECT_SOURCE_DIR}/packaging/triggers)
# Its symbols are older; what the library relies on is not, see the build's check of the version.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libcurl4 (>= 7.66.0)")
describe_package(
  runtime
  libnvrhttpcurl${PROJECT_VERSION_MAJOR}
  libs
  "HTTP client library of a network video recorder"
  "Posts JSON texts over HTTP and HTTPS and collects the answers, on the caller's"
  "thread or on worker threads. It comes with the recorder's platform libraries"
  "for a Linux host, in a folder of their own.")
describe_package(
  development
  libnvrhttpcurl-dev
  libdevel
  "HTTP client library of a network video recorder (development)"
  "Headers, and what CMake and pkg-config need to link with the library.")
describe_package(
  tools
  nvrhttp
  net
  "HTTP client of a network video recorder, from the command line"
  "Posts JSON texts over the recorder's HTTP client library, once or many times,"
  "checks whether a server can be reached, and runs an echo server and the"
  "library's console.")

# dpkg-shlibdeps, or what takes its place for packages of another architecture.
set(NVRHTTPCURL_SHLIBDEPS
    ""
    CACHE FILEPATH "Program that finds the packages of needed libraries, instead of dpkg-shlibdeps")
if(NVRHTTPCURL_SHLIBDEPS)
  file(CONFIGURE OUTPUT CPackShlibdeps.cmake CONTENT "set(SHLIBDEPS_EXECUTABLE \"${NVRHTTPCURL_SHLIBDEPS}\")\n")
  set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_BINARY_DIR}/CPackShlibdeps.cmake)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE $ENV{DEB_HOST_ARCH})
endif()

include(CPack)
