# SPDX-License-Identifier: MIT
# Tests that run programs as their users do. Debian's python3, which has Debian's pytest: another one may come first in
# the path.
find_program(VELTA_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)

# velta_pytest(name file [LABEL label (default: programs)] [ENVIRONMENT VAR=value...])
# One test for one file of cases; the build folder is VELTA_BUILD there. Nothing is written into the source tree.
function(velta_pytest name file)
  cmake_parse_arguments(ARG "" "LABEL" "ENVIRONMENT" ${ARGN})
  if(NOT ARG_LABEL)
    set(ARG_LABEL programs)
  endif()
  add_test(NAME ${name} COMMAND ${VELTA_PYTHON} -B -m pytest -q -p no:cacheprovider ${CMAKE_CURRENT_SOURCE_DIR}/${file})
  set_tests_properties(${name} PROPERTIES LABELS ${ARG_LABEL} TIMEOUT 300 ENVIRONMENT
                                          "PYTHONDONTWRITEBYTECODE=1;VELTA_BUILD=${PROJECT_BINARY_DIR};${ARG_ENVIRONMENT}")
endfunction()
