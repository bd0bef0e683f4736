# SPDX-License-Identifier: MIT
# Installing the `velta-bridge` program with its manual page and its systemd unit.
if(NOT TARGET velta_bridge)
  return()
endif()

if(NOT VELTA_DEBIAN) # which has the library where the loader looks
  file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(velta_bridge PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
endif()
install(TARGETS velta_bridge RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT bridge)
install(FILES ${PROJECT_BINARY_DIR}/bridge/velta-bridge.1$<$<BOOL:${VELTA_DEBIAN}>:.gz>
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT bridge)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/velta-bridge@.service DESTINATION lib/systemd/system COMPONENT bridge)
