# Where `cmake --install` puts things. Components: module, token (the software token: library and tool), examples,
# documents.

include(GNUInstallDirs)
if(WIN32)
  # Everything that is loaded or run lies in one folder, because Windows looks for a module's DLLs there.
  set(ZENTAK_INSTALL_MODULE_FOLDER ${CMAKE_INSTALL_BINDIR})
  set(ZENTAK_INSTALL_DOCUMENT_FOLDER documents)
else()
  # The usual place of PKCS #11 modules. The device library lies beside the module, which looks for it there.
  set(ZENTAK_INSTALL_MODULE_FOLDER ${CMAKE_INSTALL_LIBDIR}/pkcs11)
  set(ZENTAK_INSTALL_DOCUMENT_FOLDER ${CMAKE_INSTALL_DATADIR}/doc/zentak-pkcs11)
endif()

# zentak_install_library(<target> <component>): without the import library, which nobody links to.
function(zentak_install_library target component)
  install(TARGETS ${target}
          RUNTIME DESTINATION ${ZENTAK_INSTALL_MODULE_FOLDER} COMPONENT ${component}
          LIBRARY DESTINATION ${ZENTAK_INSTALL_MODULE_FOLDER} COMPONENT ${component}
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development EXCLUDE_FROM_ALL)
endfunction()
