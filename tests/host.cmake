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
