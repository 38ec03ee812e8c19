# The programs of examples/, built against the build tree and run once each, in a directory of
# their own; each checks its own work and tells by its exit status. (The package test builds one
# of them against the installed packages.)
add_subdirectory(${PROJECT_SOURCE_DIR}/examples ${CMAKE_BINARY_DIR}/examples)
foreach(name IN LISTS KIV_EXAMPLES)
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/example-${name})
  file(MAKE_DIRECTORY ${dir})
  add_test(NAME example_${name} COMMAND example_${name} WORKING_DIRECTORY ${dir})
  set_tests_properties(example_${name} PROPERTIES LABELS example TIMEOUT 120)
endforeach()
