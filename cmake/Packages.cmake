# What is installed besides programs, and the archives that scripts/package makes of it: a zip for Windows; for Linux a
# tar.gz, and Debian packages of the module and of the software token.

install(FILES README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md DESTINATION ${ZENTAK_INSTALL_DOCUMENT_FOLDER}
        COMPONENT documents)
install(DIRECTORY docs DESTINATION ${ZENTAK_INSTALL_DOCUMENT_FOLDER} COMPONENT documents)
if(WIN32)
  install(FILES packages/zentak-log-debug.reg DESTINATION . COMPONENT module)
else()
  install(FILES packages/zentak.module DESTINATION ${CMAKE_INSTALL_DATADIR}/p11-kit/modules COMPONENT module)
endif()

set(CPACK_PACKAGE_NAME zentak-pkcs11)
set(CPACK_PACKAGE_VENDOR "Dravenko Sentronics")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "PKCS #11 for Zentak tokens")
set(CPACK_PACKAGE_CONTACT "Dravenko Sentronics")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_SOURCE_DIR}/build/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL module token examples documents)

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME zentak-${PROJECT_VERSION}-windows-x86_64)
else()
  set(CPACK_GENERATOR TGZ DEB)
  set(CPACK_PACKAGE_FILE_NAME zentak-${PROJECT_VERSION}-linux-x86_64)
endif()

# The archives are whole; the Debian packages are two, because the maker's device library may replace the software token.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_MODULE_PACKAGE_NAME zentak-pkcs11)
set(CPACK_DEBIAN_MODULE_DESCRIPTION "The module: lets browsers, mail programs, VPN clients and servers find the keys and certificates on a Zentak USB token, log in, \
sign and decrypt.")
set(CPACK_DEBIAN_MODULE_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1, libstdc++6 (>= 12)")
# A maker's package that provides zentak-device-library takes the place of the software token.
set(CPACK_DEBIAN_MODULE_PACKAGE_RECOMMENDS "zentak-software-token | zentak-device-library")
set(CPACK_DEBIAN_TOKEN_PACKAGE_NAME zentak-software-token)
set(CPACK_DEBIAN_TOKEN_DESCRIPTION "The software token: a token without hardware, its keys encrypted in files, and the tool zentak-token that makes tokens and looks after \
them. The maker's device library takes its place.")
set(CPACK_DEBIAN_TOKEN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1, libssl3, libstdc++6 (>= 12)")
set(CPACK_DEBIAN_TOKEN_PACKAGE_PROVIDES zentak-device-library)
set(CPACK_DEBIAN_TOKEN_PACKAGE_CONFLICTS zentak-device-library)
set(CPACK_DEBIAN_TOKEN_PACKAGE_REPLACES zentak-device-library)

include(CPack)
cpack_add_component_group(module)
cpack_add_component_group(token)
cpack_add_component(module GROUP module)
cpack_add_component(examples GROUP module)
cpack_add_component(documents GROUP module)
cpack_add_component(token GROUP token)
