# Run by CPack once the package's files are staged: lintian's overrides go into the Debian package only.
configure_file("${CPACK_OVRA_KB_LINTIAN_OVERRIDES}"
  "${CPACK_TEMPORARY_INSTALL_DIRECTORY}${CPACK_PACKAGING_INSTALL_PREFIX}/share/lintian/overrides/ovra-kb" COPYONLY)
