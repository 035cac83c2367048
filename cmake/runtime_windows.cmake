# On Windows a program finds DLLs beside itself: all programs of the build and the DLLs they need lie
# in one directory, bin/. The C++ runtime is shared on purpose: strings, maps and std::cout cross the
# library's edge, and library and host must mean the same ones.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(TOLK_RUNTIME_DLLS)
if(MINGW)
  file(MAKE_DIRECTORY ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
  foreach(name IN ITEMS libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(
      COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name}
      OUTPUT_VARIABLE found
      OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    cmake_path(NORMAL_PATH found)
    file(COPY_FILE ${found} ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name} ONLY_IF_DIFFERENT)
    list(APPEND TOLK_RUNTIME_DLLS ${found})
  endforeach()
endif()
