# Installation and the Debian package.
#
#   cmake --install build --prefix /usr/local          (or DESTDIR=... for staging)
#   cd build && cpack -G DEB                           privdiag_VERSION_ARCH.deb
#
# Commands in bin, manual pages in man1 and man5, bash completion for
# privinspect where bash-completion looks for it on demand, the documents
# and the sample description in the doc directory.
include(GNUInstallDirs)

foreach(cmd privdiag privinspect privbuild)
  if(TARGET ${cmd})
    install(TARGETS ${cmd} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

install(FILES docs/privdiag.1 docs/privinspect.1 docs/privbuild.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES docs/privbuild-desc.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES completion/privinspect.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        RENAME privinspect)
file(GLOB PD_DOC_FILES CONFIGURE_DEPENDS docs/*.md docs/*.schema.json)
install(FILES README.md ${PD_DOC_FILES} DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES examples/sample.desc DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME privdiag)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "privdiag developers <privdiag-dev@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "read-only diagnostics for a volume manager's disk private region")
# The summary above is the Description's first line; this is its body.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
    "privdiag prints what a raw image of a disk's private region holds: the
header, the table of contents and the configuration database, with every
inconsistency marked. privinspect gives the other views (log copies, any
configuration copy, both headers, a check mode, magic scans, hex dumps,
record searches); privbuild writes images from a text description. The
image is only ever read.")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps (dpkg-dev) declares libc6, libstdc++6 and libgcc-s1.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS bash-completion)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
include(CPack)
