# The HTML API reference of the exported headers, the library's and the platform's:
# cmake --build <build> --target api_docs writes <build>/docs/api/html/index.html. Any Doxygen
# warning fails the target.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(VISTREL_API_DOCS_DIR ${PROJECT_BINARY_DIR}/docs/api)
  configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/docs/Doxyfile @ONLY)
  file(GLOB VISTREL_API_HEADERS CONFIGURE_DEPENDS
       ${PROJECT_SOURCE_DIR}/vistrel_store/include/vistrel_store/*.h
       ${PROJECT_SOURCE_DIR}/platform/*/include/*/*.h)
  add_custom_command(
    OUTPUT ${VISTREL_API_DOCS_DIR}/html/index.html
    COMMAND ${CMAKE_COMMAND} -E remove_directory ${VISTREL_API_DOCS_DIR}/html
    COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/docs/Doxyfile
    DEPENDS ${VISTREL_API_HEADERS} ${PROJECT_SOURCE_DIR}/docs/api_mainpage.md
            ${PROJECT_SOURCE_DIR}/docs/doxygen_filter.sed ${PROJECT_BINARY_DIR}/docs/Doxyfile
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    COMMENT "API reference in ${VISTREL_API_DOCS_DIR}/html")
  add_custom_target(api_docs DEPENDS ${VISTREL_API_DOCS_DIR}/html/index.html)
endif()
