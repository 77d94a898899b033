# Installation, and the Debian package: cmake --preset release && cmake --build --preset release && cpack --preset deb
include(GNUInstallDirs)
set(doc ${CMAKE_INSTALL_DATAROOTDIR}/doc/korvato-alarmd)

install(TARGETS alarmd DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(TARGET alarmctl)
  install(TARGETS alarmctl DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES packaging/bash-completion/alarmctl DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions)
endif()
install(FILES packaging/etc/korvato.conf packaging/etc/msmtp.conf packaging/etc/sms.conf
        DESTINATION /etc/korvato)
install(FILES packaging/systemd/alarmd.service DESTINATION lib/systemd/system)
install(DIRECTORY packaging/web/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/korvato/web)
install(FILES README.md docs/CONFIGURATION.md docs/OPERATIONS.md docs/RELIABILITY.md docs/SECURITY.md
        DESTINATION ${doc})
install(DIRECTORY examples DESTINATION ${doc})
install(DIRECTORY packaging/nginx DESTINATION ${doc}/examples)

# Where binFolder leads: the mail client of the distribution.
install(CODE "
  set(folder \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/korvato/ext/msmtp\")
  file(MAKE_DIRECTORY \"\${folder}\")
  file(CREATE_LINK /usr/bin/msmtp \"\${folder}/msmtp\" SYMBOLIC)")

# Debian keeps manual pages compressed, without a time in the file.
find_program(GZIP gzip)
foreach(page alarmd.8 alarmctl.1 korvato.conf.5)
  string(REGEX MATCH "[0-9]$" section ${page})
  set(source ${PROJECT_SOURCE_DIR}/packaging/man/${page})
  set(target ${CMAKE_BINARY_DIR}/man/${page}.gz)
  add_custom_command(OUTPUT ${target} DEPENDS ${source}
                     COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/man
                     COMMAND ${GZIP} -9 -n -c ${source} > ${target})
  list(APPEND manuals ${target})
  install(FILES ${target} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()
add_custom_target(manuals ALL DEPENDS ${manuals})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME korvato-alarmd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Korvato developers <alarmd@korvato.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "alarm notification of the Korvato SCADA system")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "The daemon alarmd runs beside the Korvato server, asks it for what has happened,
decides for each alarm which groups and users must hear of it, and sends them
HTML mails through msmtp and SMS through a GSM modem, in their own language. An
alarm is acknowledged by answering the SMS.
.
The companion program alarmctl checks the configuration, explains whom an alarm
reaches, and talks to the running daemon. A web page does the same for an operator.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, msmtp, ca-certificates")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "nginx-light | nginx")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/debian/postinst ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
    ${PROJECT_SOURCE_DIR}/packaging/debian/postrm ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles)
install(FILES packaging/debian/copyright DESTINATION ${doc})
include(CPack)
