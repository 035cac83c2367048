# tolk_paused: the library with its pause points, for tests that hold threads at single steps. Only
# the files that contain such points are compiled a second time. Their usual objects are left out, so
# that no weak symbol can bring one in besides.
get_target_property(library_sources tolk_objects SOURCES)
set(paused_sources)
set(usual_objects)
foreach(source IN LISTS library_sources)
  file(STRINGS ${source} points REGEX "TOLK_PAUSE_[A-Z_]+\\(")
  if(points)
    list(APPEND paused_sources ${source})
    file(RELATIVE_PATH name ${PROJECT_SOURCE_DIR} ${source})
    list(APPEND usual_objects ${name})
  endif()
endforeach()
list(APPEND usual_objects Unity/unity_paused_[0-9]_cxx.cxx)
list(JOIN usual_objects "|" usual_objects)
string(REPLACE "." "[.]" usual_objects "${usual_objects}")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${library_sources})

add_library(tolk_paused STATIC EXCLUDE_FROM_ALL ${paused_sources})
target_sources(
  tolk_paused
  PRIVATE "$<FILTER:$<TARGET_OBJECTS:tolk_objects>,EXCLUDE,/(${usual_objects})[.]o(bj)?$>"
          $<TARGET_OBJECTS:tolk_platform>)
target_compile_features(tolk_paused PUBLIC cxx_std_20)
target_compile_definitions(tolk_paused PRIVATE TOLK_BUILDING TOLK_PAUSE_POINTS PUBLIC TOLK_STATIC)
target_include_directories(tolk_paused PUBLIC ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
target_link_options(tolk_paused INTERFACE $<TARGET_PROPERTY:tolk_static,INTERFACE_LINK_OPTIONS>)
target_link_libraries(tolk_paused PUBLIC tolk::libuv Threads::Threads PRIVATE tolk_warnings)
get_target_property(several_at_once tolk_objects UNITY_BUILD)
set_target_properties(tolk_paused PROPERTIES CXX_EXTENSIONS OFF UNITY_BUILD ${several_at_once} UNITY_BUILD_MODE GROUP
                                             LINKER_LANGUAGE CXX)
