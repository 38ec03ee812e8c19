# Fault injection: SQLite's allocator and its file system fail on purpose, one call at a time.
# A main of its own puts the failing layers in place before SQLite starts.
add_executable(kiv_fault_tests ${CMAKE_CURRENT_SOURCE_DIR}/faults/faults_main.cpp)
kiv_host_executable(kiv_fault_tests)
target_link_libraries(kiv_fault_tests PRIVATE kiv_test_support GTest::gtest)
gtest_discover_tests(kiv_fault_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS faults)

# Allocation failure: operator new fails each allocation of a session in turn.
add_executable(kiv_alloc_tests ${CMAKE_CURRENT_SOURCE_DIR}/faults/alloc_sweep.cpp)
kiv_host_executable(kiv_alloc_tests)
target_link_libraries(kiv_alloc_tests PRIVATE kiv_test_support GTest::gtest_main)
gtest_discover_tests(kiv_alloc_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS faults)
