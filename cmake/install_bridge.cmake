# SPDX-License-Identifier: MIT
# Installing the `velta-bridge` program with its manual page and its systemd unit.
if(NOT TARGET velta_bridge)
  return()
endif()

velta_install_program(velta_bridge bridge)
install(FILES ${PROJECT_BINARY_DIR}/bridge/velta-bridge.1$<$<BOOL:${VELTA_DEBIAN}>:.gz>
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT bridge)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/velta-bridge@.service DESTINATION lib/systemd/system COMPONENT bridge)
