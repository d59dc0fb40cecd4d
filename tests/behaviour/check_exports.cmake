# Looks at the module as a file: exports exactly the functions of the table, and imports nothing but what every system
# has and the device library.
#
#   cmake -DMODULE=<file> -DTABLE=<function_table.inc> -DULONG=<m or j> -DNM=<nm> -DOBJDUMP=<objdump>
#         -P check_exports.cmake
#
# ULONG is the letter that the Itanium C++ ABI has for CK_ULONG. A DLL is recognised by its name.

function(run result)
  execute_process(COMMAND ${ARGN} OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  string(REPLACE ";" ":" output "${output}")
  string(REPLACE "\n" ";" lines "${output}")
  set(${result} "${lines}" PARENT_SCOPE)
endfunction()

# --- What there should be -------------------------------------------------------------------------------------------

file(STRINGS ${TABLE} rows REGEX "^CRYPTOKI_(FUNCTION|UNSUPPORTED)\\(")
set(expected "")
foreach(row IN LISTS rows)
  string(REGEX MATCH "\\((C_[A-Za-z]+)," unused "${row}")
  list(APPEND expected ${CMAKE_MATCH_1})
endforeach()
list(LENGTH expected count)
if(NOT count EQUAL 68)
  message(FATAL_ERROR "The table has ${count} standard functions instead of 68.")
endif()
list(APPEND expected _Z12C_EjectToken${ULONG} _Z28C_GetUnmanagedStructSizeListP${ULONG}S_
     _Z18C_InteractiveLogin${ULONG})

# --- What there is --------------------------------------------------------------------------------------------------

set(exported "")
set(imported "")
if(MODULE MATCHES "\\.dll$")
  # Of KERNEL32 and the C runtime everything is Windows' own since Windows 7; ADVAPI32 has the registry.
  set(allowed KERNEL32.dll msvcrt.dll ADVAPI32.dll ZentakDSCLibrary.dll)
  run(lines ${OBJDUMP} -p ${MODULE})
  set(inNames FALSE)
  foreach(line IN LISTS lines)
    if(line MATCHES "DLL Name: ([^ ]+)")
      list(APPEND imported ${CMAKE_MATCH_1})
    elseif(line MATCHES "Ordinal/Name Pointer")
      set(inNames TRUE)
    elseif(inNames AND line MATCHES "^[ \t]+\\[ *[0-9]+\\].* ([^ ]+)$")
      list(APPEND exported ${CMAKE_MATCH_1})
    elseif(inNames AND line STREQUAL "")
      set(inNames FALSE)
    endif()
  endforeach()
else()
  set(allowed libZentakDSCLibrary.so libstdc++.so.6 libgcc_s.so.1 libm.so.6 libc.so.6 ld-linux-x86-64.so.2)
  run(lines ${NM} -D --defined-only ${MODULE})
  foreach(line IN LISTS lines)
    if(line MATCHES " ([^ ]+)$")
      list(APPEND exported ${CMAKE_MATCH_1})
    endif()
  endforeach()
  run(lines ${OBJDUMP} -p ${MODULE})
  foreach(line IN LISTS lines)
    if(line MATCHES "^ +NEEDED +([^ ]+)$")
      list(APPEND imported ${CMAKE_MATCH_1})
    elseif(line MATCHES "^ +(RPATH|RUNPATH) +(.*)$")
      set(${CMAKE_MATCH_1} "${CMAKE_MATCH_2}")
    endif()
  endforeach()
  set(folder "$ORIGIN")
  if(MODULE MATCHES "/windows-form/")
    set(folder "$ORIGIN/..")
  endif()
  if(DEFINED RPATH OR NOT "${RUNPATH}" STREQUAL folder)
    message(FATAL_ERROR "The module should find its device library by RUNPATH ${folder}: "
                        "RPATH \"${RPATH}\", RUNPATH \"${RUNPATH}\".")
  endif()
endif()

# --- The comparison -------------------------------------------------------------------------------------------------

list(SORT expected)
list(SORT exported)
if(NOT exported STREQUAL expected)
  set(missing ${expected})
  list(REMOVE_ITEM missing ${exported})
  set(superfluous ${exported})
  list(REMOVE_ITEM superfluous ${expected})
  message(FATAL_ERROR "${MODULE} exports something else than the table says.\n"
                      "Missing: ${missing}\nSuperfluous: ${superfluous}")
endif()

set(foreign ${imported})
list(REMOVE_ITEM foreign ${allowed})
if(foreign AND NOT SANITIZED)
  message(FATAL_ERROR "${MODULE} needs files that aren't everywhere: ${foreign}")
endif()
if(NOT imported MATCHES "ZentakDSCLibrary\\.(so|dll)")
  message(FATAL_ERROR "${MODULE} doesn't import the device library.")
endif()
list(LENGTH exported count)
message("${MODULE}: ${count} exports, imports ${imported}")
