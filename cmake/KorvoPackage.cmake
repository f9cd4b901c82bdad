# The installed package: what `find_package(Korvo)` finds.

include(CMakePackageConfigHelpers)

set(KORVO_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Korvo")

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/KorvoConfig.cmake.in" "${PROJECT_BINARY_DIR}/KorvoConfig.cmake"
  INSTALL_DESTINATION "${KORVO_PACKAGE_DIR}"
  PATH_VARS KORVO_MODULE_DIR)
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/KorvoConfigVersion.cmake" COMPATIBILITY SameMinorVersion)

install(EXPORT KorvoTargets NAMESPACE Korvo:: DESTINATION "${KORVO_PACKAGE_DIR}")
install(
  FILES "${PROJECT_BINARY_DIR}/KorvoConfig.cmake" "${PROJECT_BINARY_DIR}/KorvoConfigVersion.cmake"
        "${PROJECT_SOURCE_DIR}/cmake/KorvoModule.cmake"
  DESTINATION "${KORVO_PACKAGE_DIR}")
install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" DESTINATION "${CMAKE_INSTALL_DOCDIR}")
