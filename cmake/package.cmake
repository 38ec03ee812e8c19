# Debian packages (`make package`, or `cpack -G DEB` in the build directory), one per component
# of cmake/install.cmake. Each carries the licence as its copyright file and the Debian
# changelog; the plug-in's package carries shlibs and the ldconfig trigger (the stand-in's
# neither: its directory is private).
set(KIV_DEB_RELEASE 1)
set(KIV_DEB_VERSION ${PROJECT_VERSION}-${KIV_DEB_RELEASE})
set(KIV_DEB_MAINTAINER "kiv_database maintainers <maintainers@users.noreply.c-seed-38c5047f.example>")

# The Debian changelog, one entry per release of CHANGELOG.md's.
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.Debian.in ${PROJECT_BINARY_DIR}/debian/changelog.Debian @ONLY)
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/debian/changelog.Debian)
execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.gz)

set(kiv_deb_lib libkiv-database1)
set(kiv_deb_dev libkiv-database-dev)
set(kiv_deb_host kiv-host)
set(kiv_deb_standin libkiv-framework-standin1)
set(kiv_deb_standin_dev libkiv-framework-standin-dev)
foreach(component lib dev host standin standin_dev)
  set(doc ${CMAKE_INSTALL_DATADIR}/doc/${kiv_deb_${component}})
  install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${doc} RENAME copyright COMPONENT ${component})
  install(FILES ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz ${PROJECT_BINARY_DIR}/debian/changelog.gz
    DESTINATION ${doc} COMPONENT ${component})
  string(TOUPPER ${component} up)
  set(CPACK_DEBIAN_${up}_PACKAGE_NAME ${kiv_deb_${component}})
endforeach()

set(CPACK_PACKAGE_NAME kiv-database)
set(CPACK_PACKAGE_VENDOR "the kiv_database authors")
set(CPACK_PACKAGE_CONTACT "${KIV_DEB_MAINTAINER}")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${KIV_DEB_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${KIV_DEB_RELEASE})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL lib dev standin standin_dev)
if(TARGET kiv_host)
  list(APPEND CPACK_COMPONENTS_ALL host)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})

# The plug-in: its binary's dependencies come from dpkg-shlibdeps; SQLite is stated, since the
# library resolves it from the program and so has no NEEDED entry for it (3.7.15: sqlite3_errstr).
set(CPACK_DEBIAN_LIB_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIB_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIB_PACKAGE_DEPENDS "libsqlite3-0 (>= 3.7.15)")
# shlibs and the ldconfig trigger written here. CPack's own way also calls ldconfig from postinst
# and postrm, which Debian has replaced with the trigger: cmake/deb-no-ldconfig.cmake takes
# those two scripts out of the built package.
file(WRITE ${PROJECT_BINARY_DIR}/debian/lib/shlibs "libkiv_database 1 libkiv-database1 (>= ${PROJECT_VERSION})\n")
file(WRITE ${PROJECT_BINARY_DIR}/debian/lib/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/debian/lib/shlibs ${PROJECT_BINARY_DIR}/debian/lib/triggers)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/deb-no-ldconfig.cmake)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libkiv-database1 (= ${KIV_DEB_VERSION}), libboost-dev, libsqlite3-dev")
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION database)
set(CPACK_DEBIAN_HOST_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS
  "libkiv-database1 (= ${KIV_DEB_VERSION}), libkiv-framework-standin1 (= ${KIV_DEB_VERSION})")
set(CPACK_DEBIAN_STANDIN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_STANDIN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_STANDIN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_STANDIN_DEV_PACKAGE_DEPENDS
  "libkiv-framework-standin1 (= ${KIV_DEB_VERSION}), libboost-dev, libsqlite3-dev")

include(CPack)
cpack_add_component(lib DESCRIPTION [=[SQLite access for kiv framework programs (plug-in library)
libkiv_database gives programs of the kiv application framework SQLite
connection objects behind a flat set of kiv_sqlite_* functions, and a
process-wide worker service named database (kiv_database_*) on which
database work runs on one thread.

The library is a plug-in: it takes the framework core and SQLite from the
program that loads it.]=])
cpack_add_component(dev DESCRIPTION [=[SQLite access for kiv framework programs (development files)
Headers, the CMake package (kiv::database) and the pkg-config file of
libkiv_database, the kiv framework's SQLite plug-in.

A program builds against the framework core it runs with: the real core's
development files, or the stand-in (libkiv-framework-standin-dev).]=])
cpack_add_component(host DESCRIPTION [=[host program of the kiv_database library
kiv_host links the framework (here its stand-in) and SQLite, loads
libkiv_database and runs SQL on a database file through it: SQL texts and
dot-commands given as arguments, a script read from standard input, or an
interactive session with line editing and history, in the manner of the
sqlite3 shell. Without arguments it runs a demonstration of the library's
database worker service.]=])
cpack_add_component(standin DESCRIPTION [=[stand-in for the kiv framework core (runtime)
A small replacement of the kiv framework core (base object, assertion
function, thread service), enough to run libkiv_database outside the
framework: for kiv_host, tests and examples.

It is installed in a directory of its own and never replaces the real core.]=])
cpack_add_component(standin_dev DESCRIPTION [=[stand-in for the kiv framework core (development files)
Headers, the CMake package (kiv_framework_standin, target kiv::framework)
and the pkg-config file (kiv_framework_standin) of the kiv framework core's
stand-in, to build examples and tests of libkiv_database without the real
core.]=])
