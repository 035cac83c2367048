# What CPack makes: on Windows a zip, in a build for /usr the Debian packages.
set(CPACK_PACKAGE_NAME tolk)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)

if(WIN32)
  # What `cmake --install` lays down, and all that a host needs beside it.
  install(FILES ${TOLK_RUNTIME_DLLS} DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
  if(libuv_ROOT AND EXISTS ${libuv_ROOT}/share/doc/libuv/LICENSE)
    # It is inside the DLL.
    install(
      FILES ${libuv_ROOT}/share/doc/libuv/LICENSE
      DESTINATION ${CMAKE_INSTALL_DOCDIR}
      RENAME LICENSE-libuv)
  endif()
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME tolk-${PROJECT_VERSION}-windows-x64)
  include(CPack)
elseif(BUILD_SHARED_LIBS AND CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  include(package_debian)
  include(CPack)
endif()
