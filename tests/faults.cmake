# Fault injection: SQLite's allocator and its file system fail on purpose, one call at a time.
# Each executable has a main of its own, which puts the failing layer in place before SQLite
# starts, and loads the library as a host does.

add_executable(kiv_oom_fault_tests ${CMAKE_CURRENT_SOURCE_DIR}/faults/oom_main.cpp)
kiv_host_executable(kiv_oom_fault_tests)
target_link_libraries(kiv_oom_fault_tests PRIVATE kiv_test_support GTest::gtest)
gtest_discover_tests(kiv_oom_fault_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS faults)

add_executable(kiv_vfs_fault_tests ${CMAKE_CURRENT_SOURCE_DIR}/faults/io_main.cpp)
kiv_host_executable(kiv_vfs_fault_tests)
target_link_libraries(kiv_vfs_fault_tests PRIVATE kiv_test_support GTest::gtest)
gtest_discover_tests(kiv_vfs_fault_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 LABELS faults)
