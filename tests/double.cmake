# The service tests once more, on a second, deliberately small framework core (a test double)
# that makes other choices than our stand-in, as a real core may. The library is linked as a
# file, without the stand-in that its target brings along.
add_library(kiv_core_double SHARED ${CMAKE_CURRENT_SOURCE_DIR}/double/kiv_core_double.cpp)
target_include_directories(kiv_core_double PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(kiv_core_double PUBLIC Boost::headers Threads::Threads)
add_executable(kiv_double_tests ${CMAKE_CURRENT_SOURCE_DIR}/api/service_test.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/api/host_safety_test.cpp)
target_link_options(kiv_double_tests PRIVATE "LINKER:--no-as-needed")
target_link_libraries(kiv_double_tests PRIVATE $<TARGET_FILE:kiv_database> kiv_core_double SQLite::SQLite3
  kiv_test_support GTest::gtest_main)
add_dependencies(kiv_double_tests kiv_database)
gtest_discover_tests(kiv_double_tests TEST_PREFIX double. DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
# And on the same core without a worker: everything runs in run_once, which the tests pump.
gtest_discover_tests(kiv_double_tests TEST_PREFIX threadless. DISCOVERY_TIMEOUT 60
  PROPERTIES TIMEOUT 300 ENVIRONMENT KIV_DOUBLE_THREADLESS=1)
