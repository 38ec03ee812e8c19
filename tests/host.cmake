# kiv_host end to end: exit statuses and the exact bytes on standard output and error. A hang
# (at shutdown, or writing to a closed pipe) shows up as a timeout.
if(TARGET kiv_host)
  foreach(group demo sql errors commands session import bad dump terminal)
    add_test(NAME host_${group} COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/host/host_case.sh
      $<TARGET_FILE:kiv_host> ${CMAKE_CURRENT_BINARY_DIR}/host-${group} ${group} ${PROJECT_VERSION})
    set_tests_properties(host_${group} PROPERTIES TIMEOUT 300 LABELS host)
  endforeach()
  # The output modes against the sqlite3 shell's, the oracle.
  add_test(NAME host_modes COMMAND sh ${CMAKE_CURRENT_SOURCE_DIR}/host/modes_case.sh
    $<TARGET_FILE:kiv_host> ${CMAKE_CURRENT_BINARY_DIR}/host-modes)
  set_tests_properties(host_modes PROPERTIES TIMEOUT 300 LABELS host)
  # The demo under valgrind's memcheck, which does not run sanitizer builds: hence the label.
  if(NOT KIV_SANITIZE)
    # No memory error and nothing definitely lost.
    add_test(NAME host_valgrind COMMAND valgrind --leak-check=full --errors-for-leak-kinds=definite
      --error-exitcode=1 $<TARGET_FILE:kiv_host> --demo)
    set_tests_properties(host_valgrind PROPERTIES TIMEOUT 600 LABELS "host;nosanitize")
  endif()
endif()
