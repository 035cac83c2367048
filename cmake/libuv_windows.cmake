# For the cross build: libuv comes from Debian's source package, built once and kept outside the tree.
# With -Dlibuv_ROOT=… another build of it is taken instead.
if(NOT libuv_ROOT)
  execute_process(
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/libuv-windows
    OUTPUT_VARIABLE made
    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE ".*\n" "" made "${made}")
  set(libuv_ROOT ${made} CACHE PATH "Where libuv for Windows is installed")
endif()
list(APPEND CMAKE_FIND_ROOT_PATH ${libuv_ROOT})
