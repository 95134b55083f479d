# API reference: `cmake --build <dir> --target docs` runs Doxygen over the public headers and
# fails on any warning (an undocumented function, record, field or global is one).
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(IPCLIENT_DOCS_OUT ${PROJECT_BINARY_DIR}/docs)
  configure_file(${PROJECT_SOURCE_DIR}/docs/api/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  file(GLOB IPCLIENT_PUBLIC_HEADERS CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/include/ipclient/*.h ${PROJECT_SOURCE_DIR}/platform/include/ipplat/*.h)
  add_custom_command(OUTPUT ${IPCLIENT_DOCS_OUT}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E make_directory ${IPCLIENT_DOCS_OUT}
    COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
    DEPENDS ${IPCLIENT_PUBLIC_HEADERS} ${PROJECT_BINARY_DIR}/Doxyfile ${PROJECT_SOURCE_DIR}/docs/api/mainpage.md
    COMMENT "API reference (Doxygen)" VERBATIM)
  add_custom_target(docs DEPENDS ${IPCLIENT_DOCS_OUT}/html/index.html)
else()
  add_custom_target(docs COMMAND ${CMAKE_COMMAND} -E echo "docs: doxygen is not installed" COMMAND false)
endif()
