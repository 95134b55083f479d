# Debian packages (`cpack -G DEB` in the build directory), one per install component:
#   libipclient0     the shared libraries (runtime)
#   libipclient-dev  headers, link names, pkg-config and CMake package files (dev)
#   ipclient-tools   the simulated device and its files, and ipctl (tools)
# Dependencies on other packages come from dpkg-shlibdeps; the development package depends
# on the runtime package of the same version.
set(CPACK_PACKAGE_NAME ipclient)
set(CPACK_PACKAGE_VENDOR "ipclient project")
set(CPACK_PACKAGE_CONTACT "ipclient developers <ipclient@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Client library of the device IP stack")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://localhost/ipclient")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libipclient${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "IP client library and its host platform\n The C library through which protocol daemons and management agents read and\n change the IP state of the device, with the platform it runs on.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libipclient-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "IP client library: development files\n Headers, pkg-config file and CMake package of the IP client library.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ipclient-tools)
# ipctl links the libraries of the runtime package: dpkg-shlibdeps finds them in the build
# tree, and the dependency on the runtime package of the same version comes from the
# components.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/platform)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "IP client tools: the simulated device and ipctl\n ipsimd, a simulated device that answers the IP client library's channels, and\n ipctl, a command-line tool that shows and changes a device's IP state through\n the library: nodes, addresses, neighbours, routes, statistics and events.")

include(CPack)
