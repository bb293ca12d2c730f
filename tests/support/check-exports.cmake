# SPDX-License-Identifier: GPL-2.0-or-later
# cmake -DNM=<nm> -DMODULE=<tessivane.so> -P check-exports.cmake
# Fails unless the module's dynamic symbol table defines exactly the entry points OBS looks up.
set(expected obs_module_description obs_module_free_locale obs_module_get_string obs_module_load
  obs_module_lookup obs_module_set_locale obs_module_set_pointer obs_module_unload obs_module_ver)

execute_process(COMMAND ${NM} -D --defined-only ${MODULE}
  OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${MODULE}: ${err}")
endif()
# The name is the last word of each line; the linker's own markers are not the module's.
string(REGEX MATCHALL "[^ \n]+\n" found "${out}")
string(REPLACE "\n" "" found "${found}")
list(REMOVE_ITEM found _init _fini _edata _end __bss_start)
list(SORT found)
if(NOT found STREQUAL expected)
  message(FATAL_ERROR "Exported symbols differ.\n  found: ${found}\n  expected: ${expected}")
endif()
