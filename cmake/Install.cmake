# What is installed: the libraries with their headers, the CMake package KorloSettings, and korlo.pc and
# korlosettings.pc. Programs, manual pages, completions and the reference install themselves. The installed tree may be
# moved: nothing in it names the prefix.
include(CMakePackageConfigHelpers)

set(korlo_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/KorloSettings)

install(TARGETS korlo korlosettings
    EXPORT KorloSettingsTargets
    RUNTIME COMPONENT runtime
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)
install(DIRECTORY core/include/korlo
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development
    FILES_MATCHING PATTERN *.h)
install(DIRECTORY include/settings
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/korlo
    COMPONENT development
    FILES_MATCHING PATTERN *.h)

install(EXPORT KorloSettingsTargets
    NAMESPACE Korlo::
    DESTINATION ${korlo_cmake_dir}
    COMPONENT development)
configure_package_config_file(cmake/KorloSettingsConfig.cmake.in ${PROJECT_BINARY_DIR}/KorloSettingsConfig.cmake
    INSTALL_DESTINATION ${korlo_cmake_dir}
    NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KorloSettingsConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES
    ${PROJECT_BINARY_DIR}/KorloSettingsConfig.cmake
    ${PROJECT_BINARY_DIR}/KorloSettingsConfigVersion.cmake
    DESTINATION ${korlo_cmake_dir}
    COMPONENT development)

# The .pc files find the rest from where they lie themselves.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX
    BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
    OUTPUT_VARIABLE korlo_prefix_from_pc)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR
    BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
    OUTPUT_VARIABLE korlo_libdir)
cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_INCLUDEDIR
    BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX}
    OUTPUT_VARIABLE korlo_includedir)
foreach(package IN ITEMS korlo korlosettings)
    configure_file(cmake/${package}.pc.in ${PROJECT_BINARY_DIR}/${package}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${package}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
endforeach()
