# SPDX-License-Identifier: GPL-2.0-or-later
# cmake -DNM=<nm> -DMODULE=<tessivane.so> -P check-exports.cmake
# Fails unless the module's dynamic symbol table defines exactly the entry points OBS looks up.
set(expected
  obs_module_description
  obs_module_free_locale
  obs_module_get_string
  obs_module_load
  obs_module_lookup
  obs_module_set_locale
  obs_module_set_pointer
  obs_module_unload
  obs_module_ver)

execute_process(COMMAND ${NM} -D --defined-only ${MODULE}
  OUTPUT_VARIABLE out ERROR_VARIABLE err RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${MODULE}: ${err}")
endif()

string(REPLACE "\n" ";" lines "${out}")
set(found)
foreach(line IN LISTS lines)
  if(line MATCHES "^[0-9a-fA-F]* *[A-Za-z] ([^ ]+)$")
    set(name "${CMAKE_MATCH_1}")
    # The linker's own markers are not the module's.
    if(NOT name MATCHES "^(_init|_fini|_edata|_end|__bss_start)$")
      list(APPEND found "${name}")
    endif()
  endif()
endforeach()
list(SORT found)

if(NOT found STREQUAL expected)
  set(extra ${found})
  list(REMOVE_ITEM extra ${expected})
  set(missing ${expected})
  if(found)
    list(REMOVE_ITEM missing ${found})
  endif()
  message(FATAL_ERROR "Exported symbols differ.\n  unexpected: ${extra}\n  missing: ${missing}")
endif()
message(STATUS "Exports: ${found}")
