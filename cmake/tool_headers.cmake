# For the cross build of the tolk command: CLI11, nlohmann_json and fmt are headers alone there, the
# same for every system. They are seen through links in the build tree, as /usr/include holds much
# besides that is for this machine.
set(headers ${PROJECT_BINARY_DIR}/tool-headers)
file(MAKE_DIRECTORY ${headers})
foreach(package IN ITEMS CLI11:CLI:libcli11-dev nlohmann_json:nlohmann:nlohmann-json3-dev
                         fmt:fmt:libfmt-dev)
  string(REPLACE : ";" package ${package})
  list(POP_FRONT package name folder debian)
  if(NOT IS_DIRECTORY /usr/include/${folder})
    message(FATAL_ERROR "The tolk command needs the headers of ${name}. On Debian: apt-get install "
                        "${debian}; or leave the command out: -DTOLK_TOOLS=OFF")
  endif()
  file(CREATE_LINK /usr/include/${folder} ${headers}/${folder} SYMBOLIC)
  add_library(${name}::${name} INTERFACE IMPORTED)
  target_include_directories(${name}::${name} INTERFACE ${headers})
endforeach()
target_compile_definitions(fmt::fmt INTERFACE FMT_HEADER_ONLY)
