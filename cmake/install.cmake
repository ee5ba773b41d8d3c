# Install rules and the Debian package (`make package`). The places follow
# Debian's policy and the FHS; with the package's prefix /usr:
#   /usr/bin                       the programs people and the parent start
#   /usr/share/man/man1            their manual pages, gzipped
#   /usr/share/<package>/wireshark the dissector: data a program (Wireshark)
#                                  loads, the same on every architecture
#   /usr/share/doc/<package>       README.md.gz, copyright, changelog.gz, and
#                                  the reference pages under doc/, gzipped
include(GNUInstallDirs)

# Debian package names allow no underscore.
set(ZEPH_PACKAGE_NAME zeph-route-grass-valley)
set(ZEPH_PACKAGE_MAINTAINER "zeph_route_grass_valley authors <zeph-route-grass-valley@example.org>"
  CACHE STRING "Maintainer field of the Debian package and its changelog")
set(zeph_docdir ${CMAKE_INSTALL_DATAROOTDIR}/doc/${ZEPH_PACKAGE_NAME})

# Programs and their manual pages.
set(ZEPH_PROGRAMS zeph_route_grass_valley switcher_emulator zeph_route_console zeph_route_panel)
set(ZEPH_MAN_PAGES zeph_route_grass_valley.1 switcher_emulator.1 zeph_route_console.1
  zeph_route_panel.1)

# Manual pages, the README and the changelog are installed compressed as the
# policy asks: gzip -9, without name or time stamp, so builds are repeatable.
find_program(ZEPH_GZIP gzip REQUIRED)
set(zeph_gzipped)
function(zeph_gzip source output)
  add_custom_command(OUTPUT ${output}
    COMMAND sh -c "\"${ZEPH_GZIP}\" -9nc \"${source}\" > \"${output}\""
    DEPENDS ${source} VERBATIM)
  set(zeph_gzipped ${zeph_gzipped} ${output} PARENT_SCOPE)
endfunction()

set(zeph_pkg_dir ${CMAKE_BINARY_DIR}/packaging)
foreach(page ${ZEPH_MAN_PAGES})
  zeph_gzip(${PROJECT_SOURCE_DIR}/man/${page} ${zeph_pkg_dir}/${page}.gz)
  install(FILES ${zeph_pkg_dir}/${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endforeach()
zeph_gzip(${PROJECT_SOURCE_DIR}/README.md ${zeph_pkg_dir}/README.md.gz)
# The reference the README links to, in the same place relative to it.
set(ZEPH_DOC_PAGES architecture.md by-design.md configuration.md console.md diagnostics.md
  emulator.md install.md limits.md panel.md parent-protocol.md switcher-link.md testing.md)
file(MAKE_DIRECTORY ${zeph_pkg_dir}/doc)
foreach(page ${ZEPH_DOC_PAGES})
  zeph_gzip(${PROJECT_SOURCE_DIR}/doc/${page} ${zeph_pkg_dir}/doc/${page}.gz)
  install(FILES ${zeph_pkg_dir}/doc/${page}.gz DESTINATION ${zeph_docdir}/doc)
endforeach()
install(FILES doc/panel.png DESTINATION ${zeph_docdir}/doc)
configure_file(packaging/changelog.in ${zeph_pkg_dir}/changelog @ONLY)
zeph_gzip(${zeph_pkg_dir}/changelog ${zeph_pkg_dir}/changelog.gz)
add_custom_target(zeph_gzipped_docs ALL DEPENDS ${zeph_gzipped})

# The copyright file in Debian's machine-readable format, from LICENSE: its
# copyright line, and its text as the licence paragraph (lines indented by
# one blank, empty ones written as " .").
file(READ LICENSE zeph_license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" _ "${zeph_license}")
set(zeph_copyright_holder "${CMAKE_MATCH_1}")
string(REGEX REPLACE "^.*Copyright \\(c\\) [^\n]*\n\n" "" zeph_license_text "${zeph_license}")
string(REGEX REPLACE "\n+$" "" zeph_license_text "${zeph_license_text}")
string(REPLACE "\n\n" "\n.\n" zeph_license_text "${zeph_license_text}")
string(REPLACE "\n" "\n " zeph_license_text "${zeph_license_text}")
file(WRITE ${zeph_pkg_dir}/copyright
  "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n"
  "Upstream-Name: ${PROJECT_NAME}\n\n"
  "Files: *\nCopyright: ${zeph_copyright_holder}\nLicense: Expat\n ${zeph_license_text}\n")

install(TARGETS ${ZEPH_PROGRAMS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES tools/wireshark/gvnp.lua
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/${ZEPH_PACKAGE_NAME}/wireshark)
install(FILES ${zeph_pkg_dir}/README.md.gz ${zeph_pkg_dir}/copyright ${zeph_pkg_dir}/changelog.gz
  DESTINATION ${zeph_docdir})

# The package's file name, also where the install test looks for it.
execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE zeph_deb_arch
  OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT zeph_deb_arch)
  set(zeph_deb_arch unknown)
endif()
set(ZEPH_DEB_FILE ${ZEPH_PACKAGE_NAME}_${PROJECT_VERSION}_${zeph_deb_arch}.deb)
set(ZEPH_PACKAGE_DIR ${CMAKE_BINARY_DIR} CACHE PATH
  "Where the install test finds the package (make package: build/release)")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${ZEPH_PACKAGE_NAME})
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${ZEPH_PACKAGE_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "router-control backend for a Grass Valley routing switcher")
set(CPACK_PACKAGE_DESCRIPTION "\
A media-control process starts the backend as a child and serves it over
standard input and output; the backend speaks the switcher's Native
Protocol over TCP, keeps a model of its destinations, sources, levels and
routes, and sends route changes.

The package also holds a switcher emulator that can record its sessions as
pcap captures, and a Wireshark dissector for the protocol.")
set(CPACK_DEBIAN_FILE_NAME ${ZEPH_DEB_FILE})
set(CPACK_DEBIAN_PACKAGE_SECTION video)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "tshark | wireshark")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
