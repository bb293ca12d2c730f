# SPDX-License-Identifier: GPL-2.0-or-later
# cmake -DCLANG_FORMAT=<clang-format> -DSOURCE_DIR=<repository> -P check-format.cmake
# Fails when a C++ file of the system, its tests or the development service is not formatted.
file(GLOB_RECURSE files ${SOURCE_DIR}/src/*.cpp ${SOURCE_DIR}/src/*.h ${SOURCE_DIR}/tests/*.cpp
  ${SOURCE_DIR}/tests/*.h ${SOURCE_DIR}/devservice/*.cpp ${SOURCE_DIR}/devservice/*.h)
if(NOT files)
  message(FATAL_ERROR "No C++ files found under ${SOURCE_DIR}")
endif()
execute_process(COMMAND ${CLANG_FORMAT} --dry-run --Werror ${files}
  RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "clang-format reports unformatted code:\n${err}")
endif()
