# What is installed where, and the Debian package: cpack -G DEB in the build folder.

# Where the systemd unit looks for the program.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set(CMAKE_INSTALL_PREFIX /usr CACHE PATH "Where to install" FORCE)
endif()
include(GNUInstallDirs)

set(TPG_UNIT_DIR lib/systemd/system)
set(TPG_INSTALLED ${CMAKE_BINARY_DIR}/installed) # what is not installed as it stands

find_program(TPG_GZIP gzip REQUIRED)

# Installs a text compressed, as NAME.gz.
function(tpg_install_gz SOURCE NAME FOLDER)
  set(out ${TPG_INSTALLED}/${NAME}.gz)
  add_custom_command(OUTPUT ${out} DEPENDS ${CMAKE_SOURCE_DIR}/${SOURCE}
                     COMMAND ${TPG_GZIP} -9nc ${CMAKE_SOURCE_DIR}/${SOURCE} > ${out})
  string(MAKE_C_IDENTIFIER "compress_${NAME}" target)
  add_custom_target(${target} ALL DEPENDS ${out})
  install(FILES ${out} DESTINATION ${FOLDER})
endfunction()

# A manual page; its section is what its name ends with.
function(tpg_install_man SOURCE)
  cmake_path(GET SOURCE FILENAME name)
  cmake_path(GET SOURCE EXTENSION LAST_ONLY section)
  string(SUBSTRING ${section} 1 -1 section)
  tpg_install_gz(${SOURCE} ${name} ${CMAKE_INSTALL_MANDIR}/man${section})
endfunction()

# A document; all stand in one folder, and their links lead there.
function(tpg_install_doc SOURCE)
  cmake_path(GET SOURCE FILENAME name)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${SOURCE})
  file(READ ${CMAKE_SOURCE_DIR}/${SOURCE} text)
  string(REGEX REPLACE "\\]\\((doc|\\.\\.)/" "](" text "${text}")
  file(CONFIGURE OUTPUT ${TPG_INSTALLED}/${name} CONTENT "${text}" @ONLY)
  install(FILES ${TPG_INSTALLED}/${name} DESTINATION ${CMAKE_INSTALL_DOCDIR})
endfunction()

file(MAKE_DIRECTORY ${TPG_INSTALLED})
install(TARGETS tpg DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS tpg-chassis tpgctl DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(page tpg.8 tpg-chassis.1 tpgctl.1 jsonmib.5)
  tpg_install_man(doc/${page})
endforeach()
if(TARGET tpg-jsonmib) # which is not for the board
  install(TARGETS tpg-jsonmib DESTINATION ${CMAKE_INSTALL_BINDIR})
  tpg_install_man(doc/tpg-jsonmib.1)
endif()
foreach(page README.md SECURITY.md doc/architecture.md doc/jsonmib.md doc/oddities.md
        doc/performance.md)
  tpg_install_doc(${page})
endforeach()
foreach(program tpgctl tpg-jsonmib)
  if(TARGET ${program})
    install(FILES ${CMAKE_CURRENT_LIST_DIR}/${program}.bash-completion
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME ${program})
  endif()
endforeach()
install(DIRECTORY ${CMAKE_SOURCE_DIR}/doc/examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
# The boards' MIB modules, which differ in a node and in their names, and what stands in for the
# standard modules that Debian does not have.
set(TPG_BOARD_MIB ${CMAKE_SOURCE_DIR}/doc/mibs/TPG-3100KX-MIB.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${TPG_BOARD_MIB})
file(READ ${TPG_BOARD_MIB} mib)
string(REPLACE "3100" "3101" mib "${mib}")
string(REPLACE "Boards 232 }" "Boards 216 }" mib "${mib}")
file(CONFIGURE OUTPUT ${TPG_INSTALLED}/mibs/TPG-3101KX-MIB.txt CONTENT "${mib}" @ONLY)
install(FILES ${TPG_BOARD_MIB} ${TPG_INSTALLED}/mibs/TPG-3101KX-MIB.txt
        DESTINATION ${CMAKE_INSTALL_DATADIR}/snmp/mibs)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/scripts/demo/mibs DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/deb/copyright DESTINATION ${CMAKE_INSTALL_DOCDIR})
tpg_install_gz(packaging/deb/changelog changelog ${CMAKE_INSTALL_DOCDIR})

# Without systemd's library the agent tells it nothing: then it counts as ready once it is started.
file(READ ${CMAKE_CURRENT_LIST_DIR}/tpg.service unit)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/tpg.service)
if(NOT SYSTEMD_FOUND)
  string(REGEX REPLACE "# Ready when[^\n]*\n#[^\n]*\nType=notify\nWatchdogSec=[0-9]+\n" "" unit "${unit}")
endif()
file(CONFIGURE OUTPUT ${TPG_INSTALLED}/tpg.service CONTENT "${unit}" @ONLY)

# These have their places whatever the prefix is.
install(FILES ${TPG_INSTALLED}/tpg.service DESTINATION /${TPG_UNIT_DIR})
install(FILES ${CMAKE_CURRENT_LIST_DIR}/snmpd-restart.conf
        DESTINATION /${TPG_UNIT_DIR}/snmpd.service.d RENAME tpg-restart.conf)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/tpg.default DESTINATION /etc/default RENAME tpg)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/card_agentx.conf DESTINATION /etc/snmp)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/snmpd-agentx.conf
        DESTINATION /etc/snmp/snmpd.conf.d RENAME tpg-agentx.conf)
# Built-in documents; those of the example's cards, which have no library, among them.
install(DIRECTORY DESTINATION /var/built_in_jsonmib)
foreach(product line2 psu4)
  install(FILES ${CMAKE_SOURCE_DIR}/doc/examples/${product}.json
          DESTINATION /var/built_in_jsonmib RENAME libmib${product}.so.json)
endforeach()

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
