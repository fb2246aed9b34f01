include(CMakePackageConfigHelpers)

set(terrane_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/TerraneCommon)

install(TARGETS TerraneCommon
  EXPORT TerraneCommonTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/terrane
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.hpp")
install(EXPORT TerraneCommonTargets
  NAMESPACE TerraneCommon::
  DESTINATION ${terrane_cmake_dir})

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/TerraneCommonConfig.cmake.in
  ${PROJECT_BINARY_DIR}/TerraneCommonConfig.cmake
  INSTALL_DESTINATION ${terrane_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/TerraneCommonConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/TerraneCommonConfig.cmake
  ${PROJECT_BINARY_DIR}/TerraneCommonConfigVersion.cmake
  DESTINATION ${terrane_cmake_dir})

configure_file(${PROJECT_SOURCE_DIR}/cmake/terrane-common.pc.in
  ${PROJECT_BINARY_DIR}/terrane-common.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/terrane-common.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
