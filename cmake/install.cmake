# Programs, units and examples, in the usual places below the prefix.
include(GNUInstallDirs)

install(PROGRAMS tools/vrox-redirect DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES man/vrox-redirect.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.conf")
install(FILES android/vrox.rc android/tun_handover.cc DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/android)

# The units name the programs by the prefix, which is known for certain only now.
install(CODE "
  set(SBINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
  set(SYSCONFDIR /etc)
  set(template \"${PROJECT_SOURCE_DIR}/packaging/vrox.service.in\")
  set(NAME vrox)
  set(INSTANCE vrox)
  set(STATE vrox)
  configure_file(\${template} \"${PROJECT_BINARY_DIR}/units/vrox.service\" @ONLY)
  set(ABOUT \" (%i)\")
  set(NAME %i)
  set(INSTANCE vrox-%i)
  set(STATE vrox-%i)
  configure_file(\${template} \"${PROJECT_BINARY_DIR}/units/vrox@.service\" @ONLY)
")
set(VROX_UNITS lib/systemd/system CACHE STRING "directory of systemd's units")
install(FILES ${PROJECT_BINARY_DIR}/units/vrox.service ${PROJECT_BINARY_DIR}/units/vrox@.service
  DESTINATION ${VROX_UNITS})

include(packaging/deb.cmake)
