# kiv_host end to end: exit statuses and the exact bytes on standard output and error.
if(TARGET kiv_host)
  foreach(case demo sql errors usage)
    add_test(NAME host_${case}
      COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/host/host_case.sh $<TARGET_FILE:kiv_host>
              ${CMAKE_CURRENT_BINARY_DIR}/host-${case} ${case})
    # A hang at shutdown shows up as a timeout.
    set_tests_properties(host_${case} PROPERTIES TIMEOUT 300 LABELS host)
  endforeach()
endif()

# The demo under memcheck; valgrind does not run sanitizer builds, hence the label.
if(TARGET kiv_host AND NOT KIV_SANITIZE)
  find_program(KIV_VALGRIND valgrind REQUIRED)
  add_test(NAME host_valgrind
    COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/host/valgrind_demo.sh $<TARGET_FILE:kiv_host>
            ${CMAKE_CURRENT_BINARY_DIR}/host-valgrind)
  set_tests_properties(host_valgrind PROPERTIES TIMEOUT 600 LABELS "host;nosanitize")
endif()
