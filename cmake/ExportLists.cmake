# Makes the export lists of the module from src/module/function_table.inc, so that a function is named in one place.

set(ZENTAK_FUNCTION_TABLE ${PROJECT_SOURCE_DIR}/src/module/function_table.inc)
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${ZENTAK_FUNCTION_TABLE})

# The exported symbols: plain standard names, then the vendor extensions as the Itanium C++ ABI decorates them, with
# `ulong` standing for CK_ULONG (m for unsigned long, j for unsigned int).
function(zentak_exported_symbols ulong result)
  file(STRINGS ${ZENTAK_FUNCTION_TABLE} rows REGEX "^(CRYPTOKI_FUNCTION|CRYPTOKI_UNSUPPORTED|VENDOR_EXTENSION)\\(")
  set(symbols "")
  foreach(row IN LISTS rows)
    string(REGEX MATCH "\\(([A-Za-z_]+)," unused "${row}")
    set(name ${CMAKE_MATCH_1})
    if(row MATCHES "^VENDOR_EXTENSION.*, ([A-Za-z_]+)\\)$")
      string(REPLACE m ${ulong} parameters ${CMAKE_MATCH_1})
      string(LENGTH ${name} length)
      set(name _Z${length}${name}${parameters})
    endif()
    list(APPEND symbols ${name})
  endforeach()
  set(${result} ${symbols} PARENT_SCOPE)
endfunction()

function(zentak_write_module_definition file ulong)
  zentak_exported_symbols(${ulong} symbols)
  list(JOIN symbols "\n    " lines)
  file(CONFIGURE OUTPUT ${file} CONTENT "LIBRARY ZentakPKCS11.dll\nEXPORTS\n    ${lines}\n")
endfunction()

function(zentak_write_version_script file ulong)
  zentak_exported_symbols(${ulong} symbols)
  list(JOIN symbols ";\n        " lines)
  file(CONFIGURE OUTPUT ${file} CONTENT "{\n    global:\n        ${lines};\n    local:\n        *;\n};\n")
endfunction()
