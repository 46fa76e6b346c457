# Corrects the packages that CPack has made. It adds scripts that call ldconfig to each package with a library,
# beside the trigger that does the same; and it knows no Multi-Arch.

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
