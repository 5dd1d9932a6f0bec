# The API reference: `cmake --build <dir> --target docs` runs Doxygen over the public headers with
# the README as the main page and writes <build>/docs/html. Any Doxygen warning, including a public
# name without documentation, fails the target (the list is in <build>/docs/warnings.log).
find_program(QW_DOXYGEN NAMES doxygen)
set(QW_DOCS_OUTPUT ${PROJECT_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${QW_DOCS_OUTPUT}/Doxyfile @ONLY)
if(QW_DOXYGEN)
    file(GLOB_RECURSE _qw_public_headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/include/quelworks/*.h)
    add_custom_target(docs
        COMMAND ${CMAKE_COMMAND} -E rm -rf ${QW_DOCS_OUTPUT}/html
        COMMAND ${QW_DOXYGEN} ${QW_DOCS_OUTPUT}/Doxyfile
        COMMAND ${CMAKE_COMMAND} -E echo "API reference: ${QW_DOCS_OUTPUT}/html/index.html"
        WORKING_DIRECTORY ${QW_DOCS_OUTPUT}
        DEPENDS ${_qw_public_headers} ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
        COMMENT "Building the API reference with Doxygen"
        VERBATIM)
else()
    add_custom_target(docs
        COMMAND ${CMAKE_COMMAND} -E echo "doxygen not found: apt-get install doxygen"
        COMMAND ${CMAKE_COMMAND} -E false
        VERBATIM)
endif()
