# An overlay port of the checkout that it lies in.
set(SOURCE_PATH "${CMAKE_CURRENT_LIST_DIR}/../../..")

vcpkg_cmake_configure(
  SOURCE_PATH "${SOURCE_PATH}"
  OPTIONS -DTOLK_TESTS=OFF -DTOLK_TOOLS=OFF -DTOLK_EXAMPLES=OFF)
vcpkg_cmake_install()
vcpkg_cmake_config_fixup(PACKAGE_NAME tolk CONFIG_PATH lib/cmake/tolk)
vcpkg_fixup_pkgconfig()
vcpkg_copy_pdbs()
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")
vcpkg_install_copyright(FILE_LIST "${SOURCE_PATH}/LICENSE")
