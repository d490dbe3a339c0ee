# What another program needs to build against the installed library (a CMake package config
# beside the pkg-config file), and the Debian package that carries everything.
include(CMakePackageConfigHelpers)

set(TVX_CMAKE_INSTALL_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/tvx_toipmi")
install(EXPORT tvx_toipmiTargets NAMESPACE tvx_toipmi:: DESTINATION "${TVX_CMAKE_INSTALL_DIR}")
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tvx_toipmiConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/tvx_toipmiConfig.cmake" INSTALL_DESTINATION "${TVX_CMAKE_INSTALL_DIR}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/tvx_toipmiConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/tvx_toipmiConfig.cmake" "${PROJECT_BINARY_DIR}/tvx_toipmiConfigVersion.cmake"
  DESTINATION "${TVX_CMAKE_INSTALL_DIR}")

# cpack -G DEB in the build directory: one package with the libraries, headers, tools, manual
# page, MIB and machine profiles under /usr; dependencies come from dpkg-shlibdeps and the
# package announces its shared libraries (shlibs file, ldconfig trigger).
set(CPACK_GENERATOR "DEB")
set(CPACK_PACKAGE_NAME "libtvx-toipmi")
set(CPACK_PACKAGE_VENDOR "tvx")
set(CPACK_PACKAGE_CONTACT "tvx maintainers <tvx@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "IPMI data as values, texts and status codes for a hardware-monitoring agent and console")
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "libs")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "snmpd, openipmi")
set(CPACK_STRIP_FILES OFF)
include(CPack)
