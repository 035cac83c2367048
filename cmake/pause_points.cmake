# tolk_paused: the library with its pause points, for tests that hold threads at single steps. Only
# the files that contain such points are compiled a second time; the rest comes from tolk_static.
get_target_property(library_sources tolk_objects SOURCES)
set(paused_sources)
foreach(source IN LISTS library_sources)
  file(STRINGS ${source} points REGEX "TOLK_PAUSE_[A-Z_]+\\(")
  if(points)
    list(APPEND paused_sources ${source})
  endif()
endforeach()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${library_sources})

add_library(tolk_paused OBJECT EXCLUDE_FROM_ALL ${paused_sources})
target_compile_definitions(tolk_paused PRIVATE TOLK_BUILDING TOLK_PAUSE_POINTS)
set_target_properties(tolk_paused PROPERTIES CXX_EXTENSIONS OFF UNITY_BUILD OFF)
target_link_libraries(tolk_paused PUBLIC tolk_static PRIVATE tolk_warnings)
