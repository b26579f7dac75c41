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
# Lintian warnings that are intended, each with its reason.
install(FILES packaging/deb/lib/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
  RENAME ${SBACC_DEB_lib} COMPONENT lib)
install(FILES packaging/deb/standins/lintian-overrides DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides
  RENAME ${SBACC_DEB_standins} COMPONENT standins EXCLUDE_FROM_ALL)
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
# Consumers take any later compatible version: shlibs ">=" and a symbols
# file, whose symbols all came with 1.1.0.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# Control files per package (packaging/deb/<component>/): the packages with
# shared libraries refresh the loader cache through the ldconfig trigger
# alone (their postinst and postrm stand in for CPack's own, which would run
# ldconfig again); the tool's scripts enable its units on install and forget
# them, and its state, on purge.
set(deb ${PROJECT_SOURCE_DIR}/packaging/deb)
set(CPACK_DEBIAN_LIB_PACKAGE_CONTROL_EXTRA ${deb}/lib/triggers ${deb}/lib/symbols ${deb}/lib/postinst ${deb}/lib/postrm)
set(CPACK_DEBIAN_STANDINS_PACKAGE_CONTROL_EXTRA ${deb}/standins/triggers ${deb}/standins/postinst
  ${deb}/standins/postrm)
set(CPACK_DEBIAN_TOOL_PACKAGE_CONTROL_EXTRA ${deb}/tool/postinst ${deb}/tool/prerm ${deb}/tool/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

foreach(component lib tool dev standins)
  string(TOUPPER ${component} C)
  set(CPACK_DEBIAN_${C}_PACKAGE_NAME ${SBACC_DEB_${component}})
endforeach()
# The platform libraries libmc_logapi.so.1 and libsanfwctl.so.1 come with a
# controller's firmware, which no package describes: the runtime packages
# declare no dependency on them (dpkg-shlibdeps finds them in the build tree
# and leaves them out), and the loader finds them on the controller's own
# library path.  Off a controller sbacc-standins supplies them.
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libsbacc1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_LIB_DESCRIPTION "mirrored, crash-safe access to named data areas
libsbacc keeps a fixed set of named data areas in up to eight HDD-file
copies with a state record in NV memory, fences off failing copies and
restores stale ones at start-up.")
set(CPACK_COMPONENT_TOOL_DESCRIPTION "tool to inspect and drive libsbacc data areas
The sbacc tool shows the state of every area and its copies, reads and
writes area data, runs the start-up restore and scrubs the copies, with
systemd units for a monthly scrub, a monitor that raises an event for
every change and node-exporter metrics.")
set(CPACK_COMPONENT_DEV_DESCRIPTION "development files for libsbacc
The C header, the link library, a pkg-config file, a CMake package and
the sbacc(3) manual page.")
set(CPACK_COMPONENT_STANDINS_DESCRIPTION "stand-in platform libraries for libsbacc
Stand-ins for the controller's firmware-control and trace libraries, for
development and testing away from a controller.  Do not install them on
a controller: they would shadow the real libraries.")
include(CPack)
