# Installation and the Debian package: cpack --preset release (or: cd build/release && cpack).
# The programs live in one directory, beside the supervisor that starts them; /usr/bin has links.

set(VANTREL_PROGRAM_DIR lib/vantrel)
set(VANTREL_PROGRAMS vtsmtpproxy vtmaild vtlogd vtstatd vtregistry vtreport vtlog vtquarantine)
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/links ${CMAKE_BINARY_DIR}/man)
foreach(program ${VANTREL_PROGRAMS})
  if(NOT TARGET ${program})
    continue()
  endif()
  install(TARGETS ${program} RUNTIME DESTINATION ${VANTREL_PROGRAM_DIR})
  file(CREATE_LINK ../${VANTREL_PROGRAM_DIR}/${program} ${CMAKE_BINARY_DIR}/links/${program} SYMBOLIC)
  install(FILES ${CMAKE_BINARY_DIR}/links/${program} DESTINATION bin)
endforeach()
install(TARGETS vtservice RUNTIME DESTINATION ${VANTREL_PROGRAM_DIR})

file(GLOB units CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/systemd/*.service)
install(FILES ${units} DESTINATION lib/systemd/system)
install(PROGRAMS packaging/clamd-settings DESTINATION ${VANTREL_PROGRAM_DIR})
install(FILES packaging/completion/vtlog packaging/completion/vtquarantine packaging/completion/vtregistry packaging/completion/vtsmtpproxy
  DESTINATION share/bash-completion/completions)
install(FILES packaging/completion/_vtlog packaging/completion/_vtquarantine packaging/completion/_vtregistry packaging/completion/_vtsmtpproxy
  DESTINATION share/zsh/vendor-completions)
install(FILES packaging/prometheus/alerts.yml DESTINATION share/vantrel/prometheus)
install(FILES packaging/grafana/vantrel.json DESTINATION share/vantrel/grafana)
install(FILES README.md ARCHITECTURE.md DESTINATION share/doc/vantrel)
install(DIRECTORY docs DESTINATION share/doc/vantrel FILES_MATCHING PATTERN *.md)
foreach(section 1 5 8)
  file(GLOB pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/man/*.${section})
  foreach(page ${pages})
    get_filename_component(name ${page} NAME)
    set(packed ${CMAKE_BINARY_DIR}/man/${name}.gz)
    add_custom_command(OUTPUT ${packed} COMMAND gzip -9nc ${page} > ${packed} DEPENDS ${page})
    list(APPEND packed_pages ${packed})
    install(FILES ${packed} DESTINATION share/man/man${section})
  endforeach()
endforeach()
# The page of the configuration keys is made from their reference.
set(keys_page ${CMAKE_BINARY_DIR}/man/vantrel-keys.5.gz)
set(keys_source ${PROJECT_SOURCE_DIR}/docs/configuration.md)
set(keys_script ${PROJECT_SOURCE_DIR}/packaging/keys-page)
add_custom_command(OUTPUT ${keys_page}
  COMMAND ${keys_script} ${keys_source} | gzip -9nc > ${keys_page}
  DEPENDS ${keys_source} ${keys_script})
list(APPEND packed_pages ${keys_page})
install(FILES ${keys_page} DESTINATION share/man/man5)
add_custom_target(man ALL DEPENDS ${packed_pages})

# What Debian wants to know of a package: whose it is, what has changed, who answers for it.
if(DEFINED ENV{DEBEMAIL} AND DEFINED ENV{DEBFULLNAME})
  set(maintainer "$ENV{DEBFULLNAME} <$ENV{DEBEMAIL}>")
else()
  set(maintainer "Vantrel <packages@vantrel.example>")
endif()
set(VANTREL_MAINTAINER "${maintainer}" CACHE STRING "Who answers for the Debian package: NAME <ADDRESS>")
set(debian ${PROJECT_SOURCE_DIR}/packaging/debian)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${debian}/changelog)
file(STRINGS ${debian}/changelog newest LIMIT_COUNT 1)
if(NOT newest MATCHES "^vantrel \\(${PROJECT_VERSION}\\) ")
  message(FATAL_ERROR "packaging/debian/changelog begins with another version than ${PROJECT_VERSION}")
endif()
foreach(name changelog copyright)
  configure_file(${debian}/${name} ${CMAKE_BINARY_DIR}/debian/${name} @ONLY)
endforeach()
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/debian/changelog.gz
  COMMAND gzip -9nkf ${CMAKE_BINARY_DIR}/debian/changelog
  DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog)
add_custom_target(changelog ALL DEPENDS ${CMAKE_BINARY_DIR}/debian/changelog.gz)
install(FILES ${CMAKE_BINARY_DIR}/debian/changelog.gz ${CMAKE_BINARY_DIR}/debian/copyright DESTINATION share/doc/vantrel)
install(FILES ${debian}/lintian-overrides DESTINATION share/lintian/overrides RENAME vantrel)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vantrel)
set(CPACK_PACKAGE_VENDOR Vantrel)
set(CPACK_PACKAGE_CONTACT "${VANTREL_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Mail security proxy: scans mail before it reaches the mail server")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
  "Stands in front of a mail server and speaks SMTP on its behalf: takes each
message, has it scanned, and only then hands it on, refuses it, drops it or
redirects it.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "adduser, clamav-daemon")
# The authorities are those that a server's certificate is judged by where no file names others.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "clamav-freshclam, ca-certificates")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "rspamd | spamd")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${debian}/preinst
  ${debian}/postinst
  ${debian}/prerm
  ${debian}/postrm)
set(CPACK_STRIP_FILES ON)
include(CPack)
