# The Debian packages: one for each component of the installation. scripts/package makes them.
set(runtime libtolk${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtolk-dev)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tolk-tools)
set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME python3-tolk)
set(CPACK_COMPONENTS_ALL runtime development python)
if(TOLK_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # the components have their own
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE tolk)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "the tolk authors <tolk@localhost>")
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(about
    "Programs call methods of others by name, with typed values, over a local
pipe or TCP; a server calls its clients just as they call it.")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "calls between processes by method name - shared library
${about}
.
This package has the library that such programs are linked with.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "calls between processes by method name - development files
${about}
.
This package has the headers, for C++17 and the layer for C++20, what CMake
and pkg-config need to find the library, the guide and examples.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "calls between processes by method name - command and dissector
${about}
.
This package has the command tolk, with which a shell calls, serves and
watches methods, and a dissector for Wireshark.")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
    "calls between processes by method name - Python 3 package
${about}
.
This package has the module tolk for Python 3.")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "${runtime} (>= ${PROJECT_VERSION}), python3 (>= 3.9)")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${runtime} (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libuv1-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS tolk-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "wireshark | tshark")

# It is for all of Debian's versions of Python 3. The library is that of the system.
install(
  DIRECTORY bindings/python/tolk
  DESTINATION lib/python3/dist-packages
  COMPONENT python
  PATTERN __pycache__ EXCLUDE)

# What programs that are linked with the library depend on, and how the loader learns of it.
set(extra ${PROJECT_BINARY_DIR}/debian)
file(WRITE ${extra}/shlibs
     "libtolk ${PROJECT_VERSION_MAJOR} ${runtime} (>= ${PROJECT_VERSION})\n")
file(WRITE ${extra}/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${extra}/shlibs
                                               ${extra}/triggers)

configure_file(packaging/debian/changelog.in ${extra}/changelog.Debian @ONLY)
configure_file(CHANGELOG.md ${extra}/changelog COPYONLY)
configure_file(packaging/debian/copyright ${extra}/copyright COPYONLY)
set(CPACK_TOLK_BUILD ${PROJECT_BINARY_DIR})
set(CPACK_TOLK_SOURCE ${PROJECT_SOURCE_DIR})
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package_debian_staged.cmake)
