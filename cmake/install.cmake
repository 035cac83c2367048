# What `cmake --install` lays down, in three components:
#
#   runtime       what a program needs that was linked with the library
#   development   what a host's build needs: headers, package config, tolk.pc, the manual
#   tools         the tolk command with its manual , and the Wireshark dissector
include(CMakePackageConfigHelpers)
set(TOLK_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tolk)

install(
  TARGETS tolk
  EXPORT tolkTargets
  RUNTIME COMPONENT runtime
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE COMPONENT development)
install(
  DIRECTORY include/tolk
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
install(
  EXPORT tolkTargets
  NAMESPACE tolk::
  DESTINATION ${TOLK_PACKAGE_DIR}
  COMPONENT development)

configure_package_config_file(cmake/tolkConfig.cmake.in tolkConfig.cmake
                              INSTALL_DESTINATION ${TOLK_PACKAGE_DIR})
write_basic_package_version_file(tolkConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/tolkConfig.cmake ${PROJECT_BINARY_DIR}/tolkConfigVersion.cmake
        cmake/libuv.cmake
  DESTINATION ${TOLK_PACKAGE_DIR}
  COMPONENT development)

# Relocatable: the prefix is found from where tolk.pc lies.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY
           ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig OUTPUT_VARIABLE TOLK_PC_PREFIX)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
           OUTPUT_VARIABLE TOLK_PC_LIBDIR)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
           OUTPUT_VARIABLE TOLK_PC_INCLUDEDIR)
if(BUILD_SHARED_LIBS)
  set(TOLK_PC_NEEDS "Requires.private: libuv")
else()
  set(TOLK_PC_NEEDS "Requires: libuv")
  set(TOLK_PC_LIBS " -pthread")
  set(TOLK_PC_CFLAGS " -DTOLK_STATIC")
endif()
configure_file(cmake/tolk.pc.in tolk.pc @ONLY)
install(
  FILES ${PROJECT_BINARY_DIR}/tolk.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

if(MINGW AND BUILD_SHARED_LIBS)
  include(cmake/import_definitions.cmake)
  tolk_write_import_definitions(${PROJECT_SOURCE_DIR}/tests/abi/exports.txt
                                ${PROJECT_BINARY_DIR}/tolk.def)
  install(
    FILES ${PROJECT_BINARY_DIR}/tolk.def
    DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT development)
endif()

if(NOT WIN32)
  install(
    FILES docs/man/tolk.3 docs/man/tolk_c.3
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
    COMPONENT development)
  install(
    FILES docs/man/tolk.7
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man7
    COMPONENT development)
  if(TOLK_TOOLS)
    # Where Wireshark of the same prefix looks.
    install(
      FILES tools/wireshark/tolk.lua
      DESTINATION ${CMAKE_INSTALL_LIBDIR}/wireshark/plugins
      COMPONENT tools)
    install(
      FILES docs/man/tolk.1
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
      COMPONENT tools)
  endif()
endif()
