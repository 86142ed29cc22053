# What is installed of the client: the library, what is needed to build against it, its Python module, and pyxctl.
include(CMakePackageConfigHelpers)

install(TARGETS pyxclient EXPORT pyxclient
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT client NAMELINK_COMPONENT development
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(DIRECTORY include/ DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development)

get_target_property(PYXCLIENT_VERSION pyxclient VERSION)

# For pkg-config. Its paths start where the file is found, so that an installation can be moved.
set(pkgconfig_directory "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
cmake_path(APPEND CMAKE_INSTALL_PREFIX "${pkgconfig_directory}" OUTPUT_VARIABLE pkgconfig_full)
file(RELATIVE_PATH PYXCLIENT_UP "${pkgconfig_full}" "${CMAKE_INSTALL_PREFIX}/")
string(REGEX REPLACE "/$" "" PYXCLIENT_UP "${PYXCLIENT_UP}")
cmake_path(APPEND PYXCLIENT_LIBDIR "\${prefix}" "${CMAKE_INSTALL_LIBDIR}")
cmake_path(APPEND PYXCLIENT_INCLUDEDIR "\${prefix}" "${CMAKE_INSTALL_INCLUDEDIR}")
configure_file("${PROJECT_SOURCE_DIR}/packaging/pyxclient.pc.in" pyxclient.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/pyxclient.pc" DESTINATION "${pkgconfig_directory}" COMPONENT development)

# For find_package. The C interface stays compatible for as long as the soname's number does.
set(cmake_directory "${CMAKE_INSTALL_LIBDIR}/cmake/pyxclient")
configure_package_config_file("${PROJECT_SOURCE_DIR}/packaging/pyxclientConfig.cmake.in" pyxclientConfig.cmake
  INSTALL_DESTINATION "${cmake_directory}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(pyxclientConfigVersion.cmake
  VERSION "${PYXCLIENT_VERSION}" COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/pyxclientConfig.cmake"
    "${CMAKE_CURRENT_BINARY_DIR}/pyxclientConfigVersion.cmake"
  DESTINATION "${cmake_directory}" COMPONENT development)
install(EXPORT pyxclient NAMESPACE pyxclient:: FILE pyxclientTargets.cmake
  DESTINATION "${cmake_directory}" COMPONENT development)

install(FILES python/pyxclient.py DESTINATION "${ZAV_PYTHON_DIR}" COMPONENT python)

install(TARGETS pyxctl RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT programs)
install(FILES completions/pyxctl.bash
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" RENAME pyxctl COMPONENT programs)
install(FILES completions/_pyxctl DESTINATION "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions" COMPONENT programs)
install(FILES completions/pyxctl.fish
  DESTINATION "${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d" COMPONENT programs)
install(FILES share/policy.schema.json
  DESTINATION "${CMAKE_INSTALL_DATADIR}/zav-pyx-plugin" COMPONENT programs)
