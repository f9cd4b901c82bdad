# The installed package: what `find_package(Korvo)` finds.

include(CMakePackageConfigHelpers)

set(KORVO_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/Korvo")

# What the installed headers include has to be found by whoever includes them.
get_property(publicLink GLOBAL PROPERTY KORVO_PUBLIC_LINK)
list(REMOVE_DUPLICATES publicLink)
set(boostComponents "")
set(KORVO_FIND_DEPENDENCIES "")
foreach(target IN LISTS publicLink)
  if(TARGET Korvo::${target} OR target MATCHES "^Korvo::")
    continue()
  elseif(target MATCHES "^Boost::(.+)$")
    list(APPEND boostComponents "${CMAKE_MATCH_1}")
  elseif(target STREQUAL "Threads::Threads")
    string(APPEND KORVO_FIND_DEPENDENCIES "set(THREADS_PREFER_PTHREAD_FLAG ON)\nfind_dependency(Threads)\n")
  else()
    message(FATAL_ERROR "${target} is in the interface of a library: state here how an outside project finds it")
  endif()
endforeach()
if(boostComponents)
  list(REMOVE_ITEM boostComponents boost headers) # names of the headers, which are found with any component
  string(JOIN " " boostComponents Boost 1.74 COMPONENTS ${boostComponents})
  string(APPEND KORVO_FIND_DEPENDENCIES "find_dependency(${boostComponents})\n")
endif()

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
install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" DESTINATION "${CMAKE_INSTALL_DATADIR}/doc/korvo")
