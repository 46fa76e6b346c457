# Installation rules. The two platform libraries are separate components, so that a vehicle platform can install
# its own editions instead.

include(CMakePackageConfigHelpers)

# A single include root for all libraries; include paths are the same as in the source tree.
set(include_root ${CMAKE_INSTALL_INCLUDEDIR}/KELServiceDiscoveryLib)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/KELServiceDiscoveryLib)
set(data_dir ${CMAKE_INSTALL_DATAROOTDIR})
set(KEL_SD_ZSH_COMPLETIONS_DIR ${data_dir}/zsh/site-functions CACHE STRING
  "Folder of zsh's completions, relative to the prefix")
mark_as_advanced(KEL_SD_ZSH_COMPLETIONS_DIR)

# Removes the library search path if the prefix is /usr. Elsewhere $ORIGIN lets the libraries find each other; in
# /usr the loader finds them anyway, and the path would only take precedence over other editions.
function(kel_sd_strip_rpath_in_system_prefix target directory component)
  install(CODE "
    if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr/?$\")
      file(RPATH_REMOVE FILE
        \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${directory}/$<TARGET_FILE_NAME:${target}>\")
    endif()"
    COMPONENT ${component})
endfunction()

# Installs a library with its CMake targets and its pkg-config file.
function(kel_sd_install_library target)
  cmake_parse_arguments(arg "" "EXPORT_NAME;RUNTIME;DEVELOPMENT;DESCRIPTION;POCO" "" ${ARGN})
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${arg_EXPORT_NAME}
    INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${target} EXPORT ${target}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT ${arg_RUNTIME}
    NAMELINK_COMPONENT ${arg_DEVELOPMENT}
    INCLUDES DESTINATION ${include_root})
  kel_sd_strip_rpath_in_system_prefix(${target} ${CMAKE_INSTALL_LIBDIR} ${arg_RUNTIME})
  install(EXPORT ${target}
    NAMESPACE KEL::
    FILE ${target}Targets.cmake
    DESTINATION ${package_dir}
    COMPONENT ${arg_DEVELOPMENT})

  file(RELATIVE_PATH pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
  set(pc_name ${target})
  set(pc_description ${arg_DESCRIPTION})
  set(pc_poco ${arg_POCO})
  set(pc_include ${include_root})
  configure_file(cmake/library.pc.in ${target}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${target}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT ${arg_DEVELOPMENT})
endfunction()

kel_sd_install_library(KELUtilLib EXPORT_NAME Util RUNTIME Util DEVELOPMENT UtilDev
  DESCRIPTION "Log and service locator of the platform" POCO -lPocoFoundation)
kel_sd_install_library(KELOEMInterfaceLib EXPORT_NAME OEMInterface RUNTIME OEMInterface DEVELOPMENT OEMInterfaceDev
  DESCRIPTION "Dispatcher that reports which network interfaces to use" POCO -lPocoFoundation)
kel_sd_install_library(KELServiceDiscoveryLib EXPORT_NAME ServiceDiscovery RUNTIME Runtime DEVELOPMENT Dev
  DESCRIPTION "${PROJECT_DESCRIPTION}" POCO "-lPocoNet -lPocoFoundation")

# The public headers; all others are internal.
foreach(header KnownServices.h ServiceDiscovery.h Export.h DataLayer/NuboServiceDescription.h DataLayer/SDService.h
    DataLayer/ServiceDiscovery_Types.h DataLayer/ServiceEvents.h DataLayer/TextList.h)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES src/${header} DESTINATION ${include_root}/${folder} COMPONENT Dev)
endforeach()
install(DIRECTORY platform/KELUtilLib/include/ DESTINATION ${include_root} COMPONENT UtilDev)
install(DIRECTORY platform/KELOEMInterfaceLib/include/ DESTINATION ${include_root} COMPONENT OEMInterfaceDev)

configure_package_config_file(cmake/KELServiceDiscoveryLibConfig.cmake.in KELServiceDiscoveryLibConfig.cmake
  INSTALL_DESTINATION ${package_dir}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(KELServiceDiscoveryLibConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/KELServiceDiscoveryLibConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/KELServiceDiscoveryLibConfigVersion.cmake
  DESTINATION ${package_dir}
  COMPONENT Dev)
install(FILES packaging/KELServiceDiscoveryLib.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT Dev)

if(KEL_SD_BUILD_TOOLS)
  install(TARGETS nubo-sd RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Tools)
  kel_sd_strip_rpath_in_system_prefix(nubo-sd ${CMAKE_INSTALL_BINDIR} Tools)
  install(FILES packaging/nubo-sd.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Tools)
  install(FILES packaging/nubo-sd.service DESTINATION lib/systemd/system COMPONENT Tools)
  install(FILES packaging/services.json DESTINATION ${data_dir}/doc/nubo-sd/examples COMPONENT Tools)
  install(FILES packaging/completions/nubo-sd DESTINATION ${data_dir}/bash-completion/completions COMPONENT Tools)
  install(FILES packaging/completions/_nubo-sd DESTINATION ${KEL_SD_ZSH_COMPLETIONS_DIR} COMPONENT Tools)
endif()
