include(CMakePackageConfigHelpers)

install(TARGETS trel EXPORT libtrelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev
  FILES_MATCHING PATTERN "*.h")

install(EXPORT libtrelTargets NAMESPACE libtrel:: FILE libtrelTargets.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/libtrel COMPONENT dev)
configure_package_config_file(cmake/libtrelConfig.cmake.in
  "${PROJECT_BINARY_DIR}/libtrelConfig.cmake"
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/libtrel)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/libtrelConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/libtrelConfig.cmake"
              "${PROJECT_BINARY_DIR}/libtrelConfigVersion.cmake"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/libtrel COMPONENT dev)

# The pkg-config file locates the prefix relative to itself, so an installed
# tree can be moved.
file(RELATIVE_PATH TREL_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" TREL_PC_TO_PREFIX "${TREL_PC_TO_PREFIX}")
configure_file(cmake/libtrel.pc.in "${PROJECT_BINARY_DIR}/libtrel.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/libtrel.pc"
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
