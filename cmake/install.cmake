# Installs the C++ library so that find_package(decision_bounds) finds it.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/decision_bounds)
install(TARGETS decision_bounds EXPORT decision_bounds-targets
  COMPONENT library DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/decision_bounds COMPONENT library
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT decision_bounds-targets NAMESPACE decision_bounds::
  COMPONENT library DESTINATION ${package_dir})
configure_package_config_file(cmake/decision_bounds-config.cmake.in
  ${PROJECT_BINARY_DIR}/decision_bounds-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/decision_bounds-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/decision_bounds-config.cmake
  ${PROJECT_BINARY_DIR}/decision_bounds-config-version.cmake
  COMPONENT library DESTINATION ${package_dir})
