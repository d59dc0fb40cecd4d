# What Windows Explorer and installers show of a file: the version of the project, the maker, and what the file is.

if(WIN32)
  enable_language(RC)
endif()

# zentak_add_version_resource(<target> <description>): does nothing for other systems.
function(zentak_add_version_resource target description)
  if(NOT WIN32)
    return()
  endif()
  get_target_property(type ${target} TYPE)
  if(type STREQUAL EXECUTABLE)
    set(kind VFT_APP)
    set(suffix ${CMAKE_EXECUTABLE_SUFFIX})
  else()
    set(kind VFT_DLL)
    set(suffix ${CMAKE_SHARED_LIBRARY_SUFFIX})
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc @ONLY)
  target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}.rc)
endfunction()
