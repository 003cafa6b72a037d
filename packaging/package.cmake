# What is installed where, and the Debian package: cpack -G DEB in the build folder.

# Where the systemd unit looks for the program.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Where to install" FORCE)
endif()
include(GNUInstallDirs)

set(TPG_UNIT_DIR lib/systemd/system)

install(TARGETS tpg DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS tpg-chassis tpgctl DESTINATION ${CMAKE_INSTALL_BINDIR})

install(FILES ${CMAKE_SOURCE_DIR}/doc/tpg.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${CMAKE_SOURCE_DIR}/doc/tpg-chassis.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/doc/tpgctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/tpgctl.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME tpgctl)
install(FILES ${CMAKE_SOURCE_DIR}/doc/jsonmib.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES ${CMAKE_SOURCE_DIR}/README.md ${CMAKE_SOURCE_DIR}/doc/architecture.md
              ${CMAKE_SOURCE_DIR}/doc/jsonmib.md
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/doc/examples DESTINATION ${CMAKE_INSTALL_DOCDIR})

# These have their places whatever the prefix is.
install(FILES ${CMAKE_CURRENT_LIST_DIR}/tpg.service DESTINATION /${TPG_UNIT_DIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/snmpd-restart.conf
        DESTINATION /${TPG_UNIT_DIR}/snmpd.service.d RENAME tpg-restart.conf)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/tpg.default DESTINATION /etc/default RENAME tpg)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/card_agentx.conf DESTINATION /etc/snmp)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/snmpd-agentx.conf
        DESTINATION /etc/snmp/snmpd.conf.d RENAME tpg-agentx.conf)
install(DIRECTORY DESTINATION /var/built_in_jsonmib)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tpg)
set(CPACK_PACKAGE_CONTACT "Chassis software <tpg@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "SNMP agent of a modular chassis and its cards")
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "snmpd, binutils")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/deb/conffiles ${CMAKE_CURRENT_LIST_DIR}/deb/postinst
    ${CMAKE_CURRENT_LIST_DIR}/deb/prerm ${CMAKE_CURRENT_LIST_DIR}/deb/postrm)
find_program(TPG_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(TPG_DPKG_SHLIBDEPS AND NOT CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
else()
  string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS
         ", libc6, libstdc++6, libsnmp40, libevent-core-2.1-7, libjson-c5")
endif()
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE powerpc)
  set(CPACK_STRIP_FILES OFF) # the host's strip does not know the board's programs
endif()
include(CPack)
