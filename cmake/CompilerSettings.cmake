# How every target of the project is compiled. Targets link to `zentak_settings`.

set(ZENTAK_SANITIZE "" CACHE STRING "Sanitizers for the whole build, as in -fsanitize=")

add_library(zentak_settings INTERFACE)
target_compile_options(zentak_settings INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
target_include_directories(zentak_settings INTERFACE ${CMAKE_SOURCE_DIR}/src)

if(ZENTAK_SANITIZE)
  add_compile_options(-fsanitize=${ZENTAK_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZENTAK_SANITIZE})
elseif(WIN32)
  add_compile_options(-fstack-protector-strong)
  # At the link too: mingw-w64 keeps the protector in a library of its own.
  add_link_options(-fstack-protector-strong)
else()
  add_compile_options(-fstack-protector-strong -D_FORTIFY_SOURCE=2)
  add_link_options(-Wl,-z,relro,-z,now)
endif()
