# The docs target's check that every exported function's comment says what it returns: the
# public headers pass, and a fixture names exactly its functions without a result, in order.
set(check_returns ${PROJECT_SOURCE_DIR}/cmake/check_returns.cmake)
add_test(NAME docs_returns_headers
  COMMAND ${CMAKE_COMMAND} "-DHEADERS=${PROJECT_SOURCE_DIR}/kiv_database/kiv_sqlite.h;${PROJECT_SOURCE_DIR}/kiv_database/database_service.h"
          -P ${check_returns})
set_tests_properties(docs_returns_headers PROPERTIES PASS_REGULAR_EXPRESSION "-- [0-9]+ exported functions, each with its result")
add_test(NAME docs_returns_missing
  COMMAND ${CMAKE_COMMAND} -DHEADERS=${CMAKE_CURRENT_SOURCE_DIR}/docs/no_return.h -P ${check_returns})
set_tests_properties(docs_returns_missing PROPERTIES PASS_REGULAR_EXPRESSION
  "no_return.h:7: kiv_fixture_bind\n +[^\n]*no_return.h:10: kiv_fixture_start\n +[^\n]*no_return.h:19: kiv_fixture_detached\n\n")
