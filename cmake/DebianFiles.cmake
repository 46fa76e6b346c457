# Adds the files that Debian requires in every package. CPack runs this script when the files of all packages are
# staged, each package in a separate folder.

function(compress file)
  execute_process(COMMAND gzip -9n ${file} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(part Runtime Util OEMInterface Tools Development)
  string(TOUPPER ${part} name)
  set(package ${CPACK_DEBIAN_${name}_PACKAGE_NAME})
  set(root ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${part}/usr/share)

  file(COPY ${CPACK_KEL_SD_PACKAGING}/debian/copyright ${CPACK_KEL_SD_PACKAGING}/debian/changelog
    DESTINATION ${root}/doc/${package}
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
  compress(${root}/doc/${package}/changelog)

  set(overrides ${CPACK_KEL_SD_PACKAGING}/debian/${package}.lintian-overrides)
  if(EXISTS ${overrides})
    configure_file(${overrides} ${root}/lintian/overrides/${package} COPYONLY)
  endif()

  # Removes the name of the compiler, which CPack's stripping leaves in place.
  file(GLOB binaries ${root}/../bin/* ${root}/../lib/*/lib*.so.*.*)
  foreach(binary ${binaries})
    execute_process(COMMAND strip --remove-section=.comment ${binary} COMMAND_ERROR_IS_FATAL ANY)
  endforeach()

  file(GLOB pages ${root}/man/man*/*.[1-9])
  foreach(page ${pages})
    compress(${page})
  endforeach()
endforeach()
