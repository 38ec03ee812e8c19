# Installation: both libraries, their headers, a CMake package (kiv::database, kiv::framework)
# and a pkg-config file. Included from the top-level CMakeLists.txt. Two components, one Debian
# package each: runtime (the libraries with their SONAME links, kiv_host) and dev (the rest).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(KIV_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/kiv_database)

# Exported as kiv::database and kiv::framework, the names the build tree already uses.
set_target_properties(kiv_database PROPERTIES EXPORT_NAME database)
set_target_properties(kiv_framework PROPERTIES EXPORT_NAME framework)

# One export set: kiv_database names kiv_framework in its interface, so both must be exported
# together. kiv_database is linked from the objects' files, not from the OBJECT library target,
# so that target stays out of the export.
install(TARGETS kiv_framework kiv_database
  EXPORT kiv_database_targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)

# Headers keep their directory under include/kiv/, a directory of this project's own, so that
# #include "kiv_database/kiv_sqlite.h" works with -I<prefix>/include/kiv and a generic
# "framework/" never meets another package's. kiv_console.h stays private to the framework.
install(FILES
  kiv_database/kiv_sqlite.h
  kiv_database/database_service.h
  kiv_database/kiv_export.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kiv/kiv_database COMPONENT dev)
install(FILES
  framework/kiv_object.h
  framework/kiv_assertion.h
  framework/kiv_thread_service.h
  framework/kiv_framework_export.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kiv/framework COMPONENT dev)

if(TARGET kiv_host)
  # Finds the libraries next to it wherever the prefix ends up.
  set_target_properties(kiv_host PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS kiv_host RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

install(EXPORT kiv_database_targets
  NAMESPACE kiv::
  FILE kiv_databaseTargets.cmake
  DESTINATION ${KIV_INSTALL_CMAKEDIR} COMPONENT dev)
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/kiv_databaseConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kiv_databaseConfig.cmake
  INSTALL_DESTINATION ${KIV_INSTALL_CMAKEDIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/kiv_databaseConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/kiv_databaseConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/kiv_databaseConfigVersion.cmake
  DESTINATION ${KIV_INSTALL_CMAKEDIR} COMPONENT dev)

# pkg-config: the prefix is found relative to the .pc file, so that
# `cmake --install build --prefix P` gives a correct file for any P.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KIV_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(KIV_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(KIV_PC_PREFIX "\${pcfiledir}/..")
  string(REGEX MATCHALL "[^/]+" libdir_parts "${CMAKE_INSTALL_LIBDIR}")
  foreach(part IN LISTS libdir_parts)
    string(APPEND KIV_PC_PREFIX "/..")
  endforeach()
  set(KIV_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(KIV_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(KIV_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/kiv_database.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/kiv_database.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kiv_database.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
