# Debian packages, one per install component: libsbacc1 (lib), sbacc (tool),
# libsbacc-dev (dev) and sbacc-standins (standins).  Build them with
#   cpack --config build/<preset>/CPackConfig.cmake
# scripts/ci-package.sh builds, checks and tries them.
set(SBACC_DEB_lib libsbacc1)
set(SBACC_DEB_tool sbacc)
set(SBACC_DEB_dev libsbacc-dev)
set(SBACC_DEB_standins sbacc-standins)

# Every package carries its copyright and changelog, as Debian requires.
set(SBACC_CHANGELOG ${CMAKE_CURRENT_BINARY_DIR}/changelog.gz)
configure_file(packaging/changelog.in ${CMAKE_CURRENT_BINARY_DIR}/changelog @ONLY)
add_custom_command(OUTPUT ${SBACC_CHANGELOG}
  COMMAND gzip -9nc ${CMAKE_CURRENT_BINARY_DIR}/changelog > ${SBACC_CHANGELOG}
  DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/changelog)
add_custom_target(sbacc_changelog ALL DEPENDS ${SBACC_CHANGELOG})
foreach(component lib tool dev standins)
  set(exclude "")
  if(component STREQUAL "standins")
    set(exclude EXCLUDE_FROM_ALL)
  endif()
  install(FILES packaging/copyright ${SBACC_CHANGELOG}
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${SBACC_DEB_${component}}
    COMPONENT ${component} ${exclude})
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME sbacc)
set(CPACK_PACKAGE_VENDOR "libsbacc developers")
set(CPACK_PACKAGE_CONTACT "libsbacc developers <sbacc-dev@example.org>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
set(CPACK_SET_DESTDIR OFF)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL lib tool dev standins)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where dpkg-shlibdeps finds the stand-ins the library and the tool need.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY "=")
# Packages with shared libraries refresh the loader cache through the trigger.
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_STANDINS_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

foreach(component lib tool dev standins)
  string(TOUPPER ${component} C)
  set(CPACK_DEBIAN_${C}_PACKAGE_NAME ${SBACC_DEB_${component}})
endforeach()
# The platform libraries come from the controller, or from the stand-ins
# package, which provides them under one virtual name.
set(CPACK_DEBIAN_LIB_PACKAGE_DEPENDS "sbacc-platform-libs")
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "sbacc-platform-libs")
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libsbacc1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_STANDINS_PACKAGE_PROVIDES "sbacc-platform-libs")
set(CPACK_COMPONENT_LIB_DESCRIPTION "mirrored, crash-safe access to named data areas
libsbacc keeps a fixed set of named data areas in up to eight HDD-file
copies with a state record in NV memory, fences off failing copies and
restores stale ones at start-up.")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "tool to inspect and drive libsbacc data areas
The sbacc tool shows the state of every area and its copies, reads and
writes area data, runs the start-up restore and scrubs the copies, with
a monthly systemd timer for the scrub.")
set(CPACK_COMPONENT_DEV_DESCRIPTION "development files for libsbacc
The C header, the link library, a pkg-config file, a CMake package and
the sbacc(3) manual page.")
set(CPACK_COMPONENT_STANDINS_DESCRIPTION "stand-in platform libraries for libsbacc
Stand-ins for the controller's firmware-control and trace libraries, for
development and testing away from a controller.  Do not install them on
a controller: they would shadow the real libraries.")
include(CPack)
