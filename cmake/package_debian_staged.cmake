# CPack runs this once the components are laid out, before it makes packages of them: here goes in what
# belongs to a Debian package and to no other installation. What is set here, CPack uses.
#
# Why not CPACK_DEBIAN_PACKAGE_SHLIBDEPS: it does not know the libtolk1 that is being made, and it adds
# scripts that call ldconfig, where the trigger is enough.

function(tolk_run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# tolk_depends(VARIABLE FILE...): what the files need, as a Depends field.
function(tolk_depends variable)
  file(WRITE ${CPACK_TOLK_BUILD}/debian/control "") # it insists on one
  execute_process(
    COMMAND dpkg-shlibdeps -O -Ldebian/shlibs -l${CPACK_TOLK_BUILD} ${ARGN}
    WORKING_DIRECTORY ${CPACK_TOLK_BUILD}
    OUTPUT_VARIABLE depends COMMAND_ERROR_IS_FATAL ANY)
  string(REGEX REPLACE "^shlibs:Depends=|\n$" "" depends "${depends}")
  set(${variable} "${depends}" PARENT_SCOPE)
endfunction()

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  set(staged ${CPACK_TEMPORARY_DIRECTORY}/${component}/usr)
  string(TOUPPER ${component} upper)
  set(documents ${staged}/share/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  file(COPY ${CPACK_TOLK_BUILD}/debian/changelog ${CPACK_TOLK_BUILD}/debian/changelog.Debian
            ${CPACK_TOLK_BUILD}/debian/copyright DESTINATION ${documents})
  if(component STREQUAL development)
    # As they lie beside one another in the repository, for their links.
    file(
      COPY ${CPACK_TOLK_SOURCE}/README.md ${CPACK_TOLK_SOURCE}/docs ${CPACK_TOLK_SOURCE}/examples
      DESTINATION ${documents}
      NO_SOURCE_PERMISSIONS
      PATTERN man EXCLUDE
      PATTERN Doxyfile EXCLUDE
      PATTERN .clang-tidy EXCLUDE
      PATTERN check* EXCLUDE)
  endif()
  file(GLOB manual ${staged}/share/man/*/*)
  tolk_run(gzip -9n ${documents}/changelog ${documents}/changelog.Debian ${manual})

  file(GLOB programs ${staged}/bin/tolk ${staged}/lib/*/libtolk.so.?.*)
  if(programs)
    tolk_depends(CPACK_DEBIAN_${upper}_PACKAGE_DEPENDS ${programs})
  endif()
endforeach()
