# The warnings that this project's own code is compiled with. Presets turn them into errors with
# CMAKE_COMPILE_WARNING_AS_ERROR; a build inside another project never fails because of them.
add_library(tolk_warnings INTERFACE)
if(MSVC)
  # 4251: classes of the interface have private members of the standard library's.
  target_compile_options(tolk_warnings INTERFACE /W4 /wd4251)
else()
  target_compile_options(
    tolk_warnings
    INTERFACE -Wall
              -Wextra
              -Wpedantic
              -Wconversion
              -Wshadow
              $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
endif()
