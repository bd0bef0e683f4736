# SPDX-License-Identifier: MIT
# Installing the `velta` program with its man page and completion.
if(NOT TARGET velta_cli)
  return()
endif()

if(NOT VELTA_DEBIAN) # which has the library where the loader looks
  file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set_target_properties(velta_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
endif()
install(TARGETS velta_cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
set(pages ${PROJECT_BINARY_DIR}/tools)
install(FILES ${pages}/velta.bash RENAME velta
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/wireshark/velta.lua DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT tools)
install(FILES ${pages}/velta.1$<$<BOOL:${VELTA_DEBIAN}>:.gz> DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
