# Installation, in five components (one Debian package each, cmake/package.cmake):
#   lib          libkiv_database.so.1                                  libkiv-database1
#   dev          its headers, the .so link, CMake package, .pc         libkiv-database-dev
#   host         kiv_host and its manual page                          kiv-host
#   standin      the framework stand-in, libkiv_framework.so.1          libkiv-framework-standin1
#   standin_dev  the stand-in's headers, .so link, CMake package, .pc   libkiv-framework-standin-dev
# The stand-in lives in directories of its own (lib/<triplet>/kiv-framework-standin,
# include/kiv-framework-standin) so that it is never found, nor installed, where the real
# framework core would be; only kiv_host (by its RUNPATH) and programs that ask for it find it.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KIV_STANDIN_LIBDIR ${CMAKE_INSTALL_LIBDIR}/kiv-framework-standin)
set(KIV_STANDIN_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/kiv-framework-standin)
set(KIV_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kiv_database)
set(KIV_STANDIN_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kiv_framework_standin)

# Exported as kiv::database and kiv::framework, the names the build tree already uses.
set_target_properties(kiv_database PROPERTIES EXPORT_NAME database)
set_target_properties(kiv_framework PROPERTIES EXPORT_NAME framework)

# Two export sets: kiv::database names kiv::framework, which a program gets from the framework
# it uses (the stand-in's package, or a target of its own for the real core).
install(TARGETS kiv_database EXPORT kiv_database_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT lib NAMELINK_COMPONENT dev)
install(TARGETS kiv_framework EXPORT kiv_framework_targets
  LIBRARY DESTINATION ${KIV_STANDIN_LIBDIR} COMPONENT standin NAMELINK_COMPONENT standin_dev)

# Headers keep their directory, so that #include "kiv_database/kiv_sqlite.h" works with
# -I<prefix>/include/kiv and #include "framework/kiv_object.h" with the stand-in's directory.
# kiv_console.h stays private to the stand-in.
install(FILES
  kiv_database/kiv_sqlite.h
  kiv_database/database_service.h
  kiv_database/kiv_export.h
  ${PROJECT_BINARY_DIR}/include/kiv_database/version.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kiv/kiv_database COMPONENT dev)
install(FILES
  framework/kiv_object.h
  framework/kiv_assertion.h
  framework/kiv_thread_service.h
  framework/kiv_framework_export.h
  DESTINATION ${KIV_STANDIN_INCLUDEDIR}/framework COMPONENT standin_dev)

if(TARGET kiv_host)
  # The stand-in is found through the RUNPATH wherever the prefix ends up, the library through
  # the system's search path or the same prefix.
  set_target_properties(kiv_host PROPERTIES
    INSTALL_RPATH "$ORIGIN/../${KIV_STANDIN_LIBDIR};$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS kiv_host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host)
  # The manual page is made from the installed program's --help and --version at install time,
  # so it says what that binary says.
  install(CODE "
    execute_process(COMMAND help2man --no-info --section=1 \"--name=host program of the kiv_database library\"
                      --output=${PROJECT_BINARY_DIR}/kiv_host.1 $<TARGET_FILE:kiv_host> RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR \"help2man failed (the Debian package help2man)\")
    endif()
    execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/kiv_host.1)"
    COMPONENT host)
  install(FILES ${PROJECT_BINARY_DIR}/kiv_host.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT host)
endif()

# CMake packages.
install(EXPORT kiv_database_targets NAMESPACE kiv:: FILE kiv_databaseTargets.cmake
  DESTINATION ${KIV_INSTALL_CMAKEDIR} COMPONENT dev)
install(EXPORT kiv_framework_targets NAMESPACE kiv:: FILE kiv_framework_standinTargets.cmake
  DESTINATION ${KIV_STANDIN_CMAKEDIR} COMPONENT standin_dev)
foreach(pkg kiv_database kiv_framework_standin)
  configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/${pkg}Config.cmake.in
    ${PROJECT_BINARY_DIR}/${pkg}Config.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/${pkg})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/${pkg}ConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/kiv_databaseConfig.cmake
  ${PROJECT_BINARY_DIR}/kiv_databaseConfigVersion.cmake
  DESTINATION ${KIV_INSTALL_CMAKEDIR} COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/kiv_framework_standinConfig.cmake
  ${PROJECT_BINARY_DIR}/kiv_framework_standinConfigVersion.cmake
  DESTINATION ${KIV_STANDIN_CMAKEDIR} COMPONENT standin_dev)

# pkg-config: the prefix is found relative to the .pc file, so that
# `cmake --install build --prefix P` gives correct files for any P.
set(KIV_PC_PREFIX "\${pcfiledir}/..")
string(REGEX MATCHALL "[^/]+" libdir_parts "${CMAKE_INSTALL_LIBDIR}")
foreach(part IN LISTS libdir_parts)
  string(APPEND KIV_PC_PREFIX "/..")
endforeach()
foreach(pc kiv_database kiv_framework_standin)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${pc}.pc.in ${PROJECT_BINARY_DIR}/${pc}.pc @ONLY)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/kiv_database.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
install(FILES ${PROJECT_BINARY_DIR}/kiv_framework_standin.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT standin_dev)
