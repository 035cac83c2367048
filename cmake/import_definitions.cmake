# tolk.def: the C interface's exports, from which other compilers for Windows make an import library
# (for instance `lib /def:tolk.def /machine:x64`). The C++ interfaces are for the compiler of the DLL.
function(tolk_write_import_definitions exports to)
  file(STRINGS ${exports} names REGEX "^tolk_")
  list(JOIN names "\n" names)
  file(WRITE ${to} "LIBRARY tolk.dll\nEXPORTS\n${names}\n")
endfunction()
