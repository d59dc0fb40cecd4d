# A stub of the device library, with its file name and the names of its operations but nothing in them: what the module
# is linked with when the software token isn't built. It is in a folder of its own and is never installed, so that no
# program loads it by mistake; the real library belongs beside the module.

set(device_header ${PROJECT_SOURCE_DIR}/src/device/zentak_dsc_library.h)
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${device_header})
file(STRINGS ${device_header} lines REGEX "zentak_[A-Za-z]+\\(")
set(operations "")
foreach(line IN LISTS lines)
  string(REGEX MATCH "zentak_[A-Za-z]+" operation "${line}")
  string(APPEND operations "ZENTAK_STUB void ${operation}() {}\n")
endforeach()
if(WIN32)
  set(visible "__declspec(dllexport)")
else()
  set(visible "__attribute__((visibility(\"default\")))")
endif()
set(stub_folder ${PROJECT_BINARY_DIR}/device-library-stub)
file(CONFIGURE OUTPUT ${stub_folder}/stub.cpp CONTENT "#define ZENTAK_STUB extern \"C\" ${visible}\n\n${operations}" @ONLY)

add_library(ZentakDSCLibrary SHARED ${stub_folder}/stub.cpp)
target_link_libraries(ZentakDSCLibrary PRIVATE zentak_settings)
set_target_properties(ZentakDSCLibrary PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${stub_folder} LIBRARY_OUTPUT_DIRECTORY
                                                  ${stub_folder} ARCHIVE_OUTPUT_DIRECTORY ${stub_folder})
if(WIN32)
  set_target_properties(ZentakDSCLibrary PROPERTIES PREFIX "")
endif()
