# `docs`: the API reference, HTML from the public headers' comments, in <build>/docs/html.
# Doxygen is looked up when the target runs, so a build directory configured before it was
# installed still builds the reference. Any warning (an undocumented declaration among them)
# fails the target.
configure_file(${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_target(docs
  COMMAND doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
  COMMENT "API reference in ${PROJECT_BINARY_DIR}/docs/html"
  VERBATIM)
