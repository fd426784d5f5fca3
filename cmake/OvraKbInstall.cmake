# Installation, the CMake package, pkg-config, and the Debian package.
include(CMakePackageConfigHelpers)

set(OVRA_KB_INSTALL_PYTHONDIR "${CMAKE_INSTALL_DATADIR}/ovra_kb/python")
set(OVRA_KB_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/OvraKb")
set(OVRA_KB_INSTALL_DOCDIR "${CMAKE_INSTALL_DATADIR}/doc/ovra-kb")

set_target_properties(ovra_kb PROPERTIES EXPORT_NAME ovra_kb INSTALL_RPATH "$ORIGIN")
set_target_properties(ovra_kb_c PROPERTIES EXPORT_NAME ovra_kb_c INSTALL_RPATH "$ORIGIN")
set_target_properties(ovra_platform PROPERTIES EXPORT_NAME platform)
install(TARGETS ovra_kb ovra_kb_c ovra_platform EXPORT OvraKbTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/ovra_kb/ovra_kb_api.h include/ovra_kb/ovra_kb_c.h include/ovra_kb/export.h "${PROJECT_BINARY_DIR}/include/ovra_kb/version.h"
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ovra_kb)
install(FILES platform/include/ovra_platform/platform.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/ovra_platform)

install(EXPORT OvraKbTargets NAMESPACE OvraKb:: DESTINATION ${OVRA_KB_INSTALL_CMAKEDIR})
configure_package_config_file(cmake/templates/OvraKbConfig.cmake.in "${PROJECT_BINARY_DIR}/OvraKbConfig.cmake"
  INSTALL_DESTINATION ${OVRA_KB_INSTALL_CMAKEDIR} PATH_VARS OVRA_KB_INSTALL_PYTHONDIR)
# Before 1.0 a minor release may break the interface: only the same minor version is compatible.
if(PROJECT_VERSION_MAJOR EQUAL 0)
  set(OVRA_KB_COMPATIBILITY SameMinorVersion)
else()
  set(OVRA_KB_COMPATIBILITY SameMajorVersion)
endif()
write_basic_package_version_file("${PROJECT_BINARY_DIR}/OvraKbConfigVersion.cmake"
  COMPATIBILITY ${OVRA_KB_COMPATIBILITY})
install(FILES "${PROJECT_BINARY_DIR}/OvraKbConfig.cmake" "${PROJECT_BINARY_DIR}/OvraKbConfigVersion.cmake"
  DESTINATION ${OVRA_KB_INSTALL_CMAKEDIR})

# The .pc file finds the prefix from where it lies, however deep the library directory is.
file(RELATIVE_PATH OVRA_KB_PC_TO_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" OVRA_KB_PC_TO_PREFIX "${OVRA_KB_PC_TO_PREFIX}")
foreach(pc IN ITEMS ovra_kb ovra_kb_c)
  configure_file(cmake/templates/${pc}.pc.in "${PROJECT_BINARY_DIR}/${pc}.pc" @ONLY)
endforeach()
install(FILES "${PROJECT_BINARY_DIR}/ovra_kb.pc" "${PROJECT_BINARY_DIR}/ovra_kb_c.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The command finds the libraries beside it and the package under ../share/ovra_kb/python.
if(TARGET ovra-kb)
  set_target_properties(ovra-kb PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS ovra-kb RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

# The reference knowledge-base package, where ovra-kb looks for it (../share/ovra_kb/python).
install(DIRECTORY python/oxe DESTINATION ${OVRA_KB_INSTALL_PYTHONDIR}
  PATTERN "__pycache__" EXCLUDE PATTERN "*.pyc" EXCLUDE)
install(FILES python/README.md DESTINATION ${OVRA_KB_INSTALL_PYTHONDIR})
install(FILES README.md CHANGELOG.md LICENSE DESTINATION ${OVRA_KB_INSTALL_DOCDIR})
install(FILES tools/README.md DESTINATION ${OVRA_KB_INSTALL_DOCDIR} RENAME ovra-kb.md)
# Debian's copyright file: the licence and who holds it.
configure_file(cmake/templates/copyright.in "${PROJECT_BINARY_DIR}/copyright" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/copyright" DESTINATION ${OVRA_KB_INSTALL_DOCDIR})
install(DIRECTORY docs/ DESTINATION ${OVRA_KB_INSTALL_DOCDIR} OPTIONAL)

set(CPACK_PACKAGE_NAME "ovra-kb")
set(CPACK_PACKAGE_VENDOR "libovra_kb developers")
set(CPACK_PACKAGE_CONTACT "libovra_kb developers <maintainers@users.noreply.c-seed-5abd4ea0.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION "libovra_kb.so gives native C and C++ programs a blocking interface (init,
search, write, delete, finalize) to a knowledge base of operator tuning records
whose logic is a Python package; it loads the runtime of python3 at run time.
The package also holds the default platform library, the headers with the
CMake and pkg-config packages, the ovra-kb command and the reference
knowledge-base package.")

# Debian's changelog of a native package, pointing at CHANGELOG.md; dated by SOURCE_DATE_EPOCH when it is set.
string(TIMESTAMP OVRA_KB_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/templates/changelog.in "${PROJECT_BINARY_DIR}/changelog" @ONLY)
file(ARCHIVE_CREATE OUTPUT "${PROJECT_BINARY_DIR}/changelog.gz" PATHS "${PROJECT_BINARY_DIR}/changelog" FORMAT raw
  COMPRESSION GZip COMPRESSION_LEVEL 9 MTIME 0)
install(FILES "${PROJECT_BINARY_DIR}/changelog.gz" DESTINATION ${OVRA_KB_INSTALL_DOCDIR})
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_GENERATOR "DEB")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "devel")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The package provides the three libraries to others (shlibs) and has the loader's cache renewed (trigger).
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
file(WRITE "${PROJECT_BINARY_DIR}/deb/triggers" "activate-noawait ldconfig\n")
# The trigger is all the loader's cache needs. CPack would add postinst and postrm scripts that run ldconfig
# as well unless the package names its own: naming files that do not exist keeps them out of the package.
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA "${PROJECT_BINARY_DIR}/deb/triggers"
  "${PROJECT_BINARY_DIR}/deb/left-out-on-purpose/postinst" "${PROJECT_BINARY_DIR}/deb/left-out-on-purpose/postrm")
# What lintian would say about a library packaged with its development files and command, and why that is so.
set(CPACK_OVRA_KB_LINTIAN_OVERRIDES "${PROJECT_SOURCE_DIR}/cmake/templates/lintian-overrides")
set(CPACK_PRE_BUILD_SCRIPTS "${PROJECT_SOURCE_DIR}/cmake/OvraKbDebExtras.cmake")
# The library loads the runtime that python3 names as its LDLIBRARY, libpython3.X.so, which Debian ships in
# libpython3.X-dev (libpython3-dev depends on the one of the default python3).
set(CPACK_DEBIAN_PACKAGE_DEPENDS "python3 (>= 3.6), libpython3-dev")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-psycopg")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
include(CPack)
