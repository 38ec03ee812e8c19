# Debian packages (`cpack -G DEB` in the build directory, or `make package`): kiv-database holds
# the libraries and kiv_host, kiv-database-dev the headers, the CMake package and the .pc file.
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kiv-database RENAME copyright COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE
  DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kiv-database-dev RENAME copyright COMPONENT dev)

set(CPACK_PACKAGE_NAME kiv-database)
set(CPACK_PACKAGE_VENDOR "the kiv_database authors")
set(CPACK_PACKAGE_CONTACT "the kiv_database authors")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "SQLite connection objects and a database worker service for kiv framework programs")
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime dev)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME kiv-database)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME kiv-database-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# The runtime's dependencies come from its binaries (libc6, libstdc++6, libsqlite3-0, ...);
# the -dev package needs what its headers include and what its link line names.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libboost-dev, libsqlite3-dev")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)

include(CPack)
cpack_add_component(runtime DISPLAY_NAME "libraries and kiv_host")
cpack_add_component(dev DISPLAY_NAME "development files" DEPENDS runtime)
