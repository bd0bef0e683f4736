# SPDX-License-Identifier: MIT
# Installing the `velta` program with its man page and completion.
if(NOT TARGET velta_cli)
  return()
endif()

# Installs a program; but in Debian's packages, where the loader looks for the library by itself, it finds it beside its
# own folder.
function(velta_install_program program component)
  if(NOT VELTA_DEBIAN)
    file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  endif()
  install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT ${component})
endfunction()

velta_install_program(velta_cli tools)
set(pages ${PROJECT_BINARY_DIR}/tools)
install(FILES ${pages}/velta.bash RENAME velta
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/wireshark/velta.lua DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT tools)
install(FILES ${pages}/velta.1$<$<BOOL:${VELTA_DEBIAN}>:.gz> DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
