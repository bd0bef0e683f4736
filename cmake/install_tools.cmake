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
install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/velta
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/bash-completion/completions COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/wireshark/velta.lua DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins COMPONENT tools)
if(VELTA_DEBIAN)
  velta_compress(docs/man/velta.1 velta.1.gz)
  install(FILES ${PROJECT_BINARY_DIR}/velta.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
else()
  install(FILES ${PROJECT_SOURCE_DIR}/docs/man/velta.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()
