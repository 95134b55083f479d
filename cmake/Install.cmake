# What `cmake --install` puts in place, split in three components that the Debian packages
# follow: runtime (the shared libraries), dev (headers, link names, pkg-config and CMake
# package files) and tools (the simulator, its man page and default scenario; ipctl, whose
# binary tools/ipctl installs, its man pages and its bash completion).
include(CMakePackageConfigHelpers)

install(TARGETS ipclient ipclient-platform
  EXPORT ipclientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ipclient ${PROJECT_SOURCE_DIR}/platform/include/ipplat
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev FILES_MATCHING PATTERN "*.h")
# The C++ test harness for applications' tests (header only).
install(DIRECTORY ${PROJECT_SOURCE_DIR}/testing/include/ipsim
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev FILES_MATCHING PATTERN "*.hpp")

# pkg-config: `pkg-config --cflags --libs ipclient`. The prefix is found from the file's own
# place, so the same file serves a package installed under /usr and a tree copied elsewhere.
file(RELATIVE_PATH IPCLIENT_PC_UP "/p/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/p")
string(REGEX REPLACE "/$" "" IPCLIENT_PC_UP "${IPCLIENT_PC_UP}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/ipclient.pc.in ${PROJECT_BINARY_DIR}/ipclient.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/ipclient.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# CMake package: find_package(ipclient) gives ipclient::ipclient (and ipclient::platform).
set(IPCLIENT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ipclient)
install(EXPORT ipclientTargets NAMESPACE ipclient:: DESTINATION ${IPCLIENT_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/packaging/ipclientConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ipclientConfig.cmake INSTALL_DESTINATION ${IPCLIENT_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ipclientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ipclientConfig.cmake ${PROJECT_BINARY_DIR}/ipclientConfigVersion.cmake
  DESTINATION ${IPCLIENT_CMAKE_DIR} COMPONENT dev)

# The simulated device.
install(TARGETS ipsimd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
# Its stand-ins for the device's run-time VPN libraries, where ipsimd looks for them
# (sim/vpn/CMakeLists.txt).
install(TARGETS ipsim_l2vpn ipsim_l3vpn LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/ipsimd COMPONENT tools)
# Man pages go in compressed, as Debian keeps them (gzip -n: the same bytes on every build).
find_program(IPCLIENT_GZIP gzip REQUIRED)
set(IPCLIENT_MAN_PAGES "")
foreach(page ipsimd.1)
  add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/man/${page}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${IPCLIENT_GZIP} -9nc ${PROJECT_SOURCE_DIR}/docs/man/${page} > ${PROJECT_BINARY_DIR}/man/${page}.gz
    DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/${page} VERBATIM)
  list(APPEND IPCLIENT_MAN_PAGES ${PROJECT_BINARY_DIR}/man/${page}.gz)
endforeach()
# ipctl's pages are of section 8: the tool's own and one per object.
set(IPCLIENT_MAN8_PAGES "")
foreach(page ipctl.8 ipctl-device.8 ipctl-addr.8 ipctl-link.8 ipctl-neigh.8 ipctl-route.8 ipctl-stats.8 ipctl-monitor.8
    ipctl-status.8)
  add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/man/${page}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
    COMMAND ${IPCLIENT_GZIP} -9nc ${PROJECT_SOURCE_DIR}/docs/man/${page} > ${PROJECT_BINARY_DIR}/man/${page}.gz
    DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/${page} VERBATIM)
  list(APPEND IPCLIENT_MAN8_PAGES ${PROJECT_BINARY_DIR}/man/${page}.gz)
endforeach()
add_custom_target(man_pages ALL DEPENDS ${IPCLIENT_MAN_PAGES} ${IPCLIENT_MAN8_PAGES})
install(FILES ${IPCLIENT_MAN_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
install(FILES ${IPCLIENT_MAN8_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT tools)
# ipctl's bash completion, where bash-completion loads it on first use of the command.
install(FILES ${PROJECT_SOURCE_DIR}/tools/ipctl/completion/ipctl
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/sim/scenario/default.yaml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/ipsimd COMPONENT tools)
# The Python harness and its pytest fixtures, where the system's python3 finds modules.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/testing/python/ipsim
  DESTINATION lib/python3/dist-packages COMPONENT tools FILES_MATCHING PATTERN "*.py")
