option(TOLK_SMALL "Optimise the library for size, which takes twice as long to build" ON)
if(NOT TOLK_SMALL)
  return()
endif()

# Optimised libraries are built for size, since a host carries the whole library and most of it runs
# once in a connection's life; what each call and each value passes through is built for speed.
set(tolk_hot
    "/capi/(block_adding|block_index|block_reading|call_table|messages|record_buffer)[.]cpp$"
    "/client/calls[.]cpp$"
    "/params/(TolkParams|arena|content)[.]cpp$"
    "/server/(calls|receive)[.]cpp$"
    "/sessions/(outgoing_call|session)[.]cpp$"
    "/transport/(envelope|frame_writer|method_registry|peer_stream|plain_receiver|result_table)[.]cpp$"
    "/transport/(staying_awake|task_queue|wait_list|work_queue)[.]cpp$")
list(JOIN tolk_hot "|" tolk_hot)
# Of those, the ones whose small functions of headers must be inlined: the linker would take the
# copies that other files have, which are optimised for size.
set(tolk_apart "/params/(TolkParams|arena|content)[.]cpp$|/transport/(envelope|peer_stream|plain_receiver)[.]cpp$")
set(optimised "$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release,RelWithDebInfo,MinSizeRel,None>>")

# The shared library is optimised as a whole: that alone saves a sixth of it. The objects hold plain
# code too, with which tests and the static library are linked, quickly. A DLL of mingw-w64 and other
# compilers do without.
set(whole OFF)
if(BUILD_SHARED_LIBS
   AND NOT WIN32
   AND NOT TOLK_SANITIZE
   AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  set(whole ON)
  target_link_options(tolk PRIVATE "$<${optimised}:-flto=auto>")
  target_link_options(tolk_static INTERFACE -fno-lto)
  # Its relocations are nearly all of one kind. Packed they need a tenth, and this C library to load.
  include(CheckCXXSourceCompiles)
  check_cxx_source_compiles(
    "#include <features.h>\n#if !__GLIBC_PREREQ(2, 36)\n#error older\n#endif\nint main() {}"
    TOLK_C_LIBRARY_UNPACKS)
  if(TOLK_C_LIBRARY_UNPACKS)
    target_link_options(tolk PRIVATE LINKER:-z,pack-relative-relocs)
  endif()
endif()

# tolk_optimise(OBJECTS PATTERN IS_MATCHING OPTION...): for those sources that match, or for the others.
function(tolk_optimise objects pattern is_matching)
  get_target_property(sources ${objects} SOURCES)
  if(is_matching)
    list(FILTER sources INCLUDE REGEX "${pattern}")
  else()
    list(FILTER sources EXCLUDE REGEX "${pattern}")
  endif()
  list(TRANSFORM ARGN REPLACE "(.+)" "$<${optimised}:\\1>")
  if(sources)
    set_property(SOURCE ${sources} TARGET_DIRECTORY ${objects} APPEND PROPERTY COMPILE_OPTIONS ${ARGN})
  endif()
endfunction()

foreach(objects IN ITEMS tolk_platform tolk_objects)
  tolk_optimise(${objects} "${tolk_hot}" OFF -Os)
  # Small loops and short jumps gain nothing where everything begins at a multiple of 16 bytes. The
  # rare parts of functions are not apart, where each would need unwinding tables of its own.
  tolk_optimise(${objects} "${tolk_hot}" ON -fno-align-functions -fno-align-jumps -fno-align-labels
                -fno-align-loops -fno-reorder-blocks-and-partition)
  if(whole)
    tolk_optimise(${objects} "${tolk_apart}" OFF -flto -ffat-lto-objects)
  endif()
endforeach()
