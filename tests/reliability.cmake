# Reliability under load, crashes and faults: each executable loads the library as a host does.
# Like the API tests, each test needs a process of its own (a join request outlives the service
# it stopped), which ctest gives it.

# A writer process for the crash test, killed mid-commit.
add_executable(kiv_crash_writer ${CMAKE_CURRENT_SOURCE_DIR}/reliability/crash_writer.cpp)
kiv_host_executable(kiv_crash_writer)

file(GLOB reliability_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/reliability/*_test.cpp)
add_executable(kiv_reliability_tests ${reliability_tests})
kiv_host_executable(kiv_reliability_tests)
target_link_libraries(kiv_reliability_tests PRIVATE kiv_test_support GTest::gtest_main)
target_compile_definitions(kiv_reliability_tests PRIVATE KIV_CRASH_WRITER="$<TARGET_FILE:kiv_crash_writer>")
add_dependencies(kiv_reliability_tests kiv_crash_writer)
gtest_discover_tests(kiv_reliability_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS reliability)

