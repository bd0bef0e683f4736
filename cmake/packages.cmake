# SPDX-License-Identifier: MIT
# Debian packages, one per install component; ./scripts/package builds them. The version in packaging/changelog is the
# packages' own and begins with the project's.
if(NOT VELTA_DEBIAN)
  return()
endif()

file(STRINGS packaging/changelog entry LIMIT_COUNT 1)
if(NOT entry MATCHES "^velta \\((${PROJECT_VERSION})-([0-9]+)\\)")
  message(FATAL_ERROR "packaging/changelog begins with '${entry}', but the version is ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
velta_compress(packaging/changelog changelog.Debian.gz)
velta_compress(CHANGELOG.md changelog.gz)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime devel)
if(TARGET velta_cli)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
if(TARGET velta_python)
  list(APPEND CPACK_COMPONENTS_ALL python)
endif()
if(TARGET velta_bridge)
  list(APPEND CPACK_COMPONENTS_ALL bridge)
endif()
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                                WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE velta)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The Velta developers <developers@velta.example>")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}) # libvelta.so.2 itself, for the tools
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(version "${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}")

# velta_package(COMPONENT NAME SECTION SUMMARY DESCRIPTION)
function(velta_package component name section summary description)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
  set(doc ${CMAKE_INSTALL_DATAROOTDIR}/doc/${name})
  install(FILES packaging/copyright ${PROJECT_BINARY_DIR}/changelog.Debian.gz ${PROJECT_BINARY_DIR}/changelog.gz
          DESTINATION ${doc} COMPONENT ${component})
  if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/${name}.lintian-overrides)
    install(FILES packaging/${name}.lintian-overrides RENAME ${name} COMPONENT ${component}
            DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides)
  endif()
endfunction()

set(about "Velta sends commands to the master controller of a multi-joint robot arm over
TCP, UDP or a serial line, and collects the joints' status.")
velta_package(runtime libvelta2 libs "client library for a robot arm's master controller" "${about}
.
This package contains the shared library.")
velta_package(devel libvelta-dev libdevel "client library for a robot arm's master controller - development files"
              "${about}
.
This package contains the headers, and what CMake and pkg-config need.")
set(CPACK_DEBIAN_DEVEL_PACKAGE_DEPENDS "libvelta2 (= ${version})")
set(CPACK_DEBIAN_DEVEL_PACKAGE_SHLIBDEPS OFF)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libvelta-dev/examples COMPONENT devel
        FILES_MATCHING PATTERN "*.cpp" PATTERN "*.h")
velta_package(tools velta-tools utils "tools for the wire to a robot arm's master controller" "${about}
.
This package contains the velta program: it simulates a controller, watches,
records and plays what passes on a link, sends single commands, and says what
is wrong when nothing moves.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libvelta2 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "gnuplot-nox, velta-bridge")
if(TARGET velta_python)
velta_package(python python3-velta python "Python module that drives a robot arm's master controller" "${about}
.
This package contains the module velta for Python 3: sessions that run the
loop, reconnect and answer every command, statuses as NumPy arrays, and
recordings.")
math(EXPR python_next "${VELTA_PYTHON_MINOR} + 1")
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.${VELTA_PYTHON_MINOR}~), python3 (<< 3.${python_next}), \
python3-numpy, libvelta2 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SUGGESTS "velta-tools, python3-pytest")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/packaging/python/postinst;\
${PROJECT_SOURCE_DIR}/packaging/python/prerm")
install(FILES examples/python/dead_man.py examples/python/move_joint.py examples/python/plot_recording.py
              examples/python/two_parts.py DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/python3-velta/examples
        COMPONENT python)
endif()
if(TARGET velta_bridge)
velta_package(bridge velta-bridge net "robot arm's state in browsers and through a broker" "${about}
.
This package contains the velta-bridge program: it serves a page that shows an
arm and commands it, carries its state and its commands through an MQTT
broker, and stops the arm when whoever commands it falls silent.")
set(CPACK_DEBIAN_BRIDGE_PACKAGE_DEPENDS "libvelta2 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_BRIDGE_PACKAGE_SUGGESTS "velta-tools, mosquitto")
endif()
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
include(CPack)
