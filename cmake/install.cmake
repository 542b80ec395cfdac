# The installed tree: the module, pmhost, the static libraries a host links, the headers it includes, and the two ways
# to find them (a CMake package and a pkg-config file). It may be moved as a whole.

include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/libprocess_manager)
set(source_dir ${PROJECT_SOURCE_DIR}/src)

install(TARGETS zym_boost zym qor_common process_manager_sdk host_kit
  EXPORT libprocess_manager
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARGET process_manager)
  install(TARGETS process_manager EXPORT libprocess_manager LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()
if(TARGET pmhost)
  install(TARGETS pmhost RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(DIRECTORY ${source_dir}/zym/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zym FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/host_kit/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/host_kit
  FILES_MATCHING PATTERN "*.h")
foreach(part process_manager qor_common qor_utils)
  if(EXISTS ${source_dir}/${part}/export)
    install(DIRECTORY ${source_dir}/${part}/export/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
      FILES_MATCHING PATTERN "*.h")
  endif()
endforeach()

install(EXPORT libprocess_manager
  FILE libprocess_manager-targets.cmake
  NAMESPACE libprocess_manager::
  DESTINATION ${package_dir})
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/libprocess_manager-config.cmake.in
  ${PROJECT_BINARY_DIR}/libprocess_manager-config.cmake
  INSTALL_DESTINATION ${package_dir}
  PATH_VARS CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/libprocess_manager-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/libprocess_manager-config.cmake
  ${PROJECT_BINARY_DIR}/libprocess_manager-config-version.cmake
  DESTINATION ${package_dir})

configure_file(cmake/libprocess_manager.pc.in libprocess_manager.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libprocess_manager.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(PROJECT_IS_TOP_LEVEL)
  set(CPACK_GENERATOR TGZ)
  set(CPACK_PACKAGE_FILE_NAME ${PROJECT_NAME}-${PROJECT_VERSION}-linux-${CMAKE_SYSTEM_PROCESSOR})
  set(CPACK_STRIP_FILES ON)
  set(CPACK_VERBATIM_VARIABLES ON)
  include(CPack)
endif()
