# The Debian packages, unpacked, against the README's example. The example links the packaged
# libraries without sanitizer flags, hence not in the sanitizer builds.
if(TARGET kiv_host)
  add_test(NAME package
    COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/consumer/package_test.sh ${CMAKE_BINARY_DIR}
            ${PROJECT_SOURCE_DIR} ${CMAKE_CURRENT_BINARY_DIR}/package-test ${CMAKE_CXX_COMPILER})
  set_tests_properties(package PROPERTIES LABELS "install;nosanitize" TIMEOUT 600)
endif()
