# The library loaded with dlopen and unloaded in the states a plug-in host leaves it in. The
# program links the framework and SQLite like a host, but not the library.
add_executable(kiv_unload_test ${CMAKE_CURRENT_SOURCE_DIR}/unload/unload_main.cpp)
target_link_options(kiv_unload_test PRIVATE "LINKER:--no-as-needed")
target_link_libraries(kiv_unload_test PRIVATE kiv_framework SQLite::SQLite3 ${CMAKE_DL_LIBS})
target_compile_definitions(kiv_unload_test PRIVATE KIV_DATABASE_LIBRARY="$<TARGET_FILE:kiv_database>")
add_dependencies(kiv_unload_test kiv_database)
foreach(mode cycles running open)
  add_test(NAME unload_${mode} COMMAND kiv_unload_test ${mode})
  # A hang at the join or at exit shows up as a timeout.
  set_tests_properties(unload_${mode} PROPERTIES TIMEOUT 60 LABELS unload)
endforeach()
