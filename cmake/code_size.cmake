# Optimised libraries are built for size, since a host carries the whole library and most of it runs
# once in a connection's life; what each call and each value passes through is built for speed.
set(tolk_hot
    "/capi/(block|block_adding|block_functions|block_index|block_reading|call_table|messages|record_buffer)[.]cpp$"
    "/client/(calls|receive)[.]cpp$"
    "/params/(ListParams|TolkParams|TolkValue|arena|content)[.]cpp$"
    "/server/(calls|receive)[.]cpp$"
    "/sessions/(client_session|outgoing_call|session)[.]cpp$"
    "/transport/(envelope|frame_writer|method_registry|outgoing_queue|peer_stream|plain_receiver)[.]cpp$"
    "/transport/(result_table|staying_awake|task_queue|wait_list|work_item|work_queue)[.]cpp$")
list(JOIN tolk_hot "|" tolk_hot)
set(optimised "$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release,RelWithDebInfo,MinSizeRel,None>>")

foreach(objects IN ITEMS tolk_platform tolk_objects)
  get_target_property(sources ${objects} SOURCES)
  set(cold ${sources})
  list(FILTER sources INCLUDE REGEX "${tolk_hot}")
  list(FILTER cold EXCLUDE REGEX "${tolk_hot}")
  set_property(SOURCE ${cold} TARGET_DIRECTORY ${objects} APPEND PROPERTY COMPILE_OPTIONS
                                                                  "$<${optimised}:-Os>")
  if(sources)
    # Small loops and short jumps gain nothing where everything begins at a multiple of 16 bytes.
    set_property(
      SOURCE ${sources} TARGET_DIRECTORY ${objects} APPEND
      PROPERTY COMPILE_OPTIONS
               "$<${optimised}:-fno-align-functions;-fno-align-jumps;-fno-align-labels;-fno-align-loops>")
  endif()
endforeach()

# Inlining strings and containers everywhere would double these, and not make them quicker.
foreach(file IN ITEMS capi/call_table capi/messages transport/method_registry)
  set_property(
    SOURCE ${PROJECT_SOURCE_DIR}/${file}.cpp TARGET_DIRECTORY tolk_objects APPEND
    PROPERTY COMPILE_OPTIONS "$<${optimised}:--param=max-inline-insns-single=30>")
endforeach()

# The shared library is optimised as a whole: that alone saves a sixth of it. The objects hold plain
# code too, with which tests and the static library are linked, quickly. A DLL of mingw-w64 and other
# compilers do without.
if(BUILD_SHARED_LIBS
   AND NOT WIN32
   AND NOT TOLK_SANITIZE
   AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  target_compile_options(tolk_objects
                         PRIVATE "$<${optimised}:-flto;-ffat-lto-objects>")
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
