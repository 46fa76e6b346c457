# Corrects the packages built by CPack: removes the maintainer scripts that call ldconfig, which CPack adds to each
# package with a library although a trigger does the same, and adds the Multi-Arch field, which CPack does not
# support.

foreach(file ${CPACK_PACKAGE_FILES})
  set(folder ${file}.folder)
  file(REMOVE_RECURSE ${folder})
  execute_process(COMMAND dpkg-deb --raw-extract ${file} ${folder} COMMAND_ERROR_IS_FATAL ANY)
  set(multi_arch foreign)
  get_filename_component(name ${file} NAME)
  if(name MATCHES "^lib")
    set(multi_arch same)
    file(REMOVE ${folder}/DEBIAN/postinst ${folder}/DEBIAN/postrm)
  endif()
  file(READ ${folder}/DEBIAN/control control)
  string(REGEX REPLACE "\nPackage: [^\n]+" "\\0\nMulti-Arch: ${multi_arch}" control "${control}")
  file(WRITE ${folder}/DEBIAN/control "${control}")
  execute_process(COMMAND dpkg-deb --root-owner-group --build ${folder} ${file}
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  file(REMOVE_RECURSE ${folder})
endforeach()
