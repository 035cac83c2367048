# libtolk for hosts, and the same objects as a static library for tests that see internals.
add_library(tolk)
add_library(tolk::tolk ALIAS tolk)
target_sources(tolk PRIVATE $<TARGET_OBJECTS:tolk_objects> $<TARGET_OBJECTS:tolk_platform>)
target_compile_features(tolk INTERFACE cxx_std_17)
target_include_directories(
  tolk INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                 $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
target_link_libraries(tolk PRIVATE tolk::libuv Threads::Threads)
set_target_properties(tolk PROPERTIES VERSION ${PROJECT_VERSION}
                                      SOVERSION ${PROJECT_VERSION_MAJOR} LINKER_LANGUAGE CXX)

if(WIN32)
  set_target_properties(tolk PROPERTIES PREFIX "") # tolk.dll, with every compiler
endif()

if(NOT BUILD_SHARED_LIBS)
  target_compile_definitions(tolk INTERFACE TOLK_STATIC)
  target_compile_definitions(tolk_objects PRIVATE TOLK_STATIC)
elseif(NOT WIN32)
  # Loop threads may still run when a host unloads the library: it then stays in memory.
  target_link_options(tolk PRIVATE LINKER:-z,nodelete)
  target_link_options(tolk PRIVATE LINKER:--version-script=${PROJECT_SOURCE_DIR}/cmake/tolk.map)
  set_property(TARGET tolk APPEND PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/tolk.map)
  if(NOT TOLK_SANITIZE)
    target_link_options(tolk PRIVATE LINKER:--no-undefined)
  endif()
endif()

add_library(tolk_static STATIC EXCLUDE_FROM_ALL)
target_sources(tolk_static PRIVATE $<TARGET_OBJECTS:tolk_objects> $<TARGET_OBJECTS:tolk_platform>)
target_compile_features(tolk_static INTERFACE cxx_std_20)
target_compile_definitions(tolk_static INTERFACE TOLK_STATIC)
target_include_directories(tolk_static INTERFACE ${PROJECT_SOURCE_DIR}/include
                                                 ${PROJECT_SOURCE_DIR})
target_link_libraries(tolk_static PUBLIC tolk::libuv Threads::Threads)
set_target_properties(tolk_static PROPERTIES LINKER_LANGUAGE CXX)
