# Installs headers, the library and a package config so that find_package(quelworks CONFIG) works.
include(CMakePackageConfigHelpers)

# Components: runtime (the shared libraries), development (headers, link libraries, package
# files), tools (the programs); the packages are split along them (cmake/QwPackaging.cmake).
install(TARGETS quelworks EXPORT quelworksTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/quelworks DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development)
install(EXPORT quelworksTargets
    NAMESPACE quelworks::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quelworks
    COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/quelworksConfig.cmake.in
    ${PROJECT_BINARY_DIR}/quelworksConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quelworks)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/quelworksConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/quelworksConfig.cmake
    ${PROJECT_BINARY_DIR}/quelworksConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/quelworks
    COMPONENT development)
