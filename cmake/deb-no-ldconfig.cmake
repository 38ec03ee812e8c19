# Run by CPack after the packages are built: rebuilds libkiv-database1 without the postinst and
# postrm that only call ldconfig (its ldconfig trigger does that work).
foreach(deb IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(name "${deb}" NAME)
  if(NOT name MATCHES "^libkiv-database1_")
    continue()
  endif()
  set(tree "${CPACK_TOPLEVEL_DIRECTORY}/no-ldconfig")
  file(REMOVE_RECURSE "${tree}")
  execute_process(COMMAND dpkg-deb -R "${deb}" "${tree}" COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE "${tree}/DEBIAN/postinst" "${tree}/DEBIAN/postrm")
  execute_process(COMMAND dpkg-deb --root-owner-group -Zgzip -b "${tree}" "${deb}"
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE "${tree}")
endforeach()
