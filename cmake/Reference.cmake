# The reference as HTML, in reference/index.html of the build directory: target "reference".
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
  # Who asks for it is told what is missing.
  add_custom_target(reference
    COMMAND ${CMAKE_COMMAND} -E echo
            "The reference needs Doxygen: tools/install-dependencies all, then configure again"
    COMMAND ${CMAKE_COMMAND} -E false
    VERBATIM)
  return()
endif()

set(reference_dir ${PROJECT_BINARY_DIR}/reference)
configure_file(${PROJECT_SOURCE_DIR}/docs/reference/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_target(reference
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${reference_dir}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${reference_dir}
  COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "Reference: ${reference_dir}/index.html"
  VERBATIM)
