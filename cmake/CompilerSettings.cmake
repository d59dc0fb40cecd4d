# How every target of the project is compiled. Targets link to `zentak_settings`. The presets make warnings errors
# (CMAKE_COMPILE_WARNING_AS_ERROR): a release that is built by a newer compiler shouldn't fail on its new warnings.

set(ZENTAK_SANITIZE "" CACHE STRING "Sanitizers for the whole build, as in -fsanitize=")
option(ZENTAK_COVERAGE "Let the module count which of its lines and branches are run")

add_library(zentak_settings INTERFACE)
target_compile_options(zentak_settings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(CMAKE_UNITY_BUILD)
  # A local name may be another source's.
  target_compile_options(zentak_settings INTERFACE -Wno-shadow)
endif()
target_include_directories(zentak_settings INTERFACE ${PROJECT_SOURCE_DIR}/src)

# The last line of defence, in all that is built; scripts/check-hardening looks whether the files really have it.
if(ZENTAK_SANITIZE)
  add_compile_options(-fsanitize=${ZENTAK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZENTAK_SANITIZE})
elseif(WIN32)
  # At the link too: mingw-w64 keeps the protector in a library of its own.
  add_compile_options(-fstack-protector-strong $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
  add_link_options(-fstack-protector-strong -Wl,--dynamicbase,--high-entropy-va,--nxcompat)
else()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -fcf-protection=full)
  # What it checks is only known to the optimiser.
  add_compile_options($<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=3>)
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
  # CMAKE_POSITION_INDEPENDENT_CODE alone leaves the link of a program to the compiler's default.
  include(CheckPIESupported)
  check_pie_supported()
endif()

# zentak_count_coverage(<target>): of the coverage build. Threads count too, hence the atomic counters.
function(zentak_count_coverage target)
  if(ZENTAK_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()
