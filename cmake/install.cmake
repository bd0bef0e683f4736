# SPDX-License-Identifier: MIT
# Installing: library, headers, package files for CMake and pkg-config. An installed tree can be moved as a whole.
set(velta_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/velta)
install(TARGETS velta EXPORT veltaTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT devel
        PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/velta COMPONENT devel)
install(EXPORT veltaTargets NAMESPACE velta:: DESTINATION ${velta_cmake_dir} COMPONENT devel)
configure_package_config_file(cmake/veltaConfig.cmake.in veltaConfig.cmake INSTALL_DESTINATION ${velta_cmake_dir})
write_basic_package_version_file(veltaConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/veltaConfig.cmake ${PROJECT_BINARY_DIR}/veltaConfigVersion.cmake
        DESTINATION ${velta_cmake_dir} COMPONENT devel)
# pkg-config's prefix is relative to the .pc file.
file(RELATIVE_PATH pc_to_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/velta.pc.in velta.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/velta.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT devel)

# velta_compress(SOURCE NAME) makes NAME in the build folder, the same bytes every time.
function(velta_compress source name)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${source})
  execute_process(COMMAND gzip -9nc ${PROJECT_SOURCE_DIR}/${source} OUTPUT_FILE ${PROJECT_BINARY_DIR}/${name}
                  COMMAND_ERROR_IS_FATAL ANY)
endfunction()
