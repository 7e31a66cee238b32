# cmake --install: headers with their folder layout, the DLLs, the import
# libraries and a package config, so that an application does
#   find_package(wisock CONFIG REQUIRED)
#   target_link_libraries(app PRIVATE wisock::wisock)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR}/src/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/wisock
        FILES_MATCHING PATTERN "*.h")

install(TARGETS ${WISOCK_BUILT_DLLS} EXPORT wisockTargets
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/wisock)

if(WISOCK_SEALKIT_PREBUILT)
  # A sealkit.dll built elsewhere: the config file declares it (see wisockConfig.cmake.in).
  install(FILES ${CMAKE_BINARY_DIR}/bin/sealkit.dll DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${CMAKE_BINARY_DIR}/lib/sealkit.lib DESTINATION ${CMAKE_INSTALL_LIBDIR})
  set(WISOCK_CONFIG_SEALKIT_PREBUILT 1)
else()
  set(WISOCK_CONFIG_SEALKIT_PREBUILT 0)
endif()

install(EXPORT wisockTargets NAMESPACE wisock:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/wisock)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/wisockConfig.cmake.in
  ${CMAKE_BINARY_DIR}/wisockConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/wisock)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/wisockConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/wisockConfig.cmake ${CMAKE_BINARY_DIR}/wisockConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/wisock)
