# What `cmake --install` lays down: library, headers, package config and tolk.pc.
include(CMakePackageConfigHelpers)
set(TOLK_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tolk)

install(TARGETS tolk EXPORT tolkTargets)
install(DIRECTORY include/tolk DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(
  EXPORT tolkTargets
  NAMESPACE tolk::
  DESTINATION ${TOLK_PACKAGE_DIR})

configure_package_config_file(cmake/tolkConfig.cmake.in tolkConfig.cmake
                              INSTALL_DESTINATION ${TOLK_PACKAGE_DIR})
write_basic_package_version_file(tolkConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tolkConfig.cmake ${PROJECT_BINARY_DIR}/tolkConfigVersion.cmake
              cmake/libuv.cmake DESTINATION ${TOLK_PACKAGE_DIR})

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
install(FILES ${PROJECT_BINARY_DIR}/tolk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
