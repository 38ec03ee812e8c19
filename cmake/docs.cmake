# `docs`: the API reference, HTML from the public headers' comments, in <build>/docs/html, with
# docs/mainpage.md as its front page. Doxygen is looked up when the target runs, so a build
# directory configured before it was installed still builds the reference. Any warning (an
# undocumented declaration among them) fails the target, and so does an exported function whose
# own comment does not say what it returns (cmake/check_returns.cmake), checked first.
configure_file(${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
set(KIV_PUBLIC_HEADERS ${PROJECT_SOURCE_DIR}/kiv_database/kiv_sqlite.h
                       ${PROJECT_SOURCE_DIR}/kiv_database/database_service.h)
add_custom_target(docs
  COMMAND ${CMAKE_COMMAND} "-DHEADERS=${KIV_PUBLIC_HEADERS}" -P ${CMAKE_CURRENT_LIST_DIR}/check_returns.cmake
  COMMAND doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
  COMMENT "API reference in ${PROJECT_BINARY_DIR}/docs/html"
  VERBATIM)
