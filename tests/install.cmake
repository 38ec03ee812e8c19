# Install into a prefix under the build directory, then build and run the README's example
# against it, once through the CMake package and once through pkg-config. The consumer links
# the installed libraries without sanitizer flags, hence excluded from the sanitizer builds.
include(GNUInstallDirs)
set(kiv_install_prefix ${CMAKE_BINARY_DIR}/install-test/prefix)
set(kiv_install_args
  -DPREFIX=${kiv_install_prefix} -DLIBDIR=${CMAKE_INSTALL_LIBDIR} -DBUILD_DIR=${CMAKE_BINARY_DIR}
  -DREADME=${PROJECT_SOURCE_DIR}/README.md -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR}/consumer
  -DCXX=${CMAKE_CXX_COMPILER})

add_test(NAME install_prefix
  COMMAND ${CMAKE_COMMAND} ${kiv_install_args} -DMODE=install
          -P ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run_consumer.cmake)
set_tests_properties(install_prefix PROPERTIES FIXTURES_SETUP kiv_installed)

foreach(mode cmake pkgconfig)
  add_test(NAME install_consumer_${mode}
    COMMAND ${CMAKE_COMMAND} ${kiv_install_args} -DMODE=${mode}
            -DWORK=${CMAKE_BINARY_DIR}/install-test/${mode}
            -P ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run_consumer.cmake)
  set_tests_properties(install_consumer_${mode} PROPERTIES FIXTURES_REQUIRED kiv_installed)
endforeach()
set_tests_properties(install_prefix install_consumer_cmake install_consumer_pkgconfig
  PROPERTIES LABELS "install;nosanitize" TIMEOUT 600)
