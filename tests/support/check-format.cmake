# SPDX-License-Identifier: GPL-2.0-or-later
# cmake -DCLANG_FORMAT=<clang-format> -DSOURCE_DIR=<repository> -P check-format.cmake
# Fails when a C++ file of the system, its tests or the development service is not formatted.
set(folders src tests devservice)
find_program(GIT git)
if(GIT AND EXISTS "${SOURCE_DIR}/.git")
  execute_process(COMMAND ${GIT} ls-files --cached --others --exclude-standard -- ${folders}
    WORKING_DIRECTORY "${SOURCE_DIR}" OUTPUT_VARIABLE listed RESULT_VARIABLE rc)
endif()
set(files)
if(GIT AND rc EQUAL 0)
  string(REPLACE "\n" ";" listed "${listed}")
  foreach(file IN LISTS listed)
    if(file MATCHES "\\.(cpp|h)$" AND EXISTS "${SOURCE_DIR}/${file}")
      list(APPEND files "${SOURCE_DIR}/${file}")
    endif()
  endforeach()
else()
  foreach(folder IN LISTS folders)
    file(GLOB_RECURSE found "${SOURCE_DIR}/${folder}/*.cpp" "${SOURCE_DIR}/${folder}/*.h")
    list(APPEND files ${found})
  endforeach()
endif()
if(NOT files)
  message(FATAL_ERROR "No C++ files found under ${SOURCE_DIR}")
endif()

execute_process(COMMAND ${CLANG_FORMAT} --dry-run --Werror ${files}
  WORKING_DIRECTORY "${SOURCE_DIR}" RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "clang-format reports unformatted code:\n${err}")
endif()
list(LENGTH files count)
message(STATUS "${count} files formatted")
