# Installs the C++ library so that find_package(decision_bounds) and pkg-config find it. A project
# around this one gets it too, as what it exports may need it; add_subdirectory(... EXCLUDE_FROM_ALL)
# leaves it out.
include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/decision_bounds)
install(TARGETS decision_bounds EXPORT decision_bounds-targets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT decision_bounds_development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT decision_bounds_runtime
    NAMELINK_COMPONENT decision_bounds_development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT decision_bounds_runtime)
install(DIRECTORY include/decision_bounds COMPONENT decision_bounds_development
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT decision_bounds-targets NAMESPACE decision_bounds::
  COMPONENT decision_bounds_development DESTINATION ${package_dir})
configure_package_config_file(cmake/decision_bounds-config.cmake.in
  ${PROJECT_BINARY_DIR}/decision_bounds-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/decision_bounds-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/decision_bounds-config.cmake
  ${PROJECT_BINARY_DIR}/decision_bounds-config-version.cmake
  COMPONENT decision_bounds_development DESTINATION ${package_dir})

# The file says where it lies by way of its own place, so the installed tree may be moved.
file(RELATIVE_PATH pc_prefix ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
if(BUILD_SHARED_LIBS)
  set(pc_cflags -DDECISION_BOUNDS_SHARED)
  set(pc_threads_private ${CMAKE_THREAD_LIBS_INIT})
else()
  set(pc_threads ${CMAKE_THREAD_LIBS_INIT})
endif()
configure_file(cmake/decision_bounds.pc.in ${PROJECT_BINARY_DIR}/decision_bounds.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/decision_bounds.pc
  COMPONENT decision_bounds_development DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
