# How this project declares its targets. Every library, module, program and test goes through one of the
# functions below, so that warnings, visibility, output folders and install rules are stated once.

include(GNUInstallDirs)

set(KORVO_MODULE_DIR "${CMAKE_INSTALL_LIBDIR}/korvo/modules")

add_library(korvo_warnings INTERFACE)
target_compile_options(korvo_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-qual -Wcast-align
  -Wnon-virtual-dtor -Woverloaded-virtual -Wdouble-promotion -Wformat=2 -Wundef -Wunused -Wvla
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wuseless-cast>
  $<$<BOOL:${KORVO_WERROR}>:-Werror>)

function(_korvo_common target)
  cmake_parse_arguments(ARG "" "" "PUBLIC_LINK;PRIVATE_LINK" ${ARGN})
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  target_link_libraries(${target}
    PUBLIC ${ARG_PUBLIC_LINK}
    PRIVATE ${ARG_PRIVATE_LINK} $<BUILD_INTERFACE:korvo_warnings>)
endfunction()

# korvo_library(<name> SOURCES <file>... [PUBLIC_LINK <target>...] [PRIVATE_LINK <target>...])
#
# A shared library of the platform: headers in include/ beside the caller's CMakeLists.txt, alias Korvo::<name>,
# strict warnings, hidden visibility (mark what crosses the library with HX_API), installed and exported.
function(korvo_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;PUBLIC_LINK;PRIVATE_LINK" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(Korvo::${name} ALIAS ${name})
  _korvo_common(${name} PUBLIC_LINK ${ARG_PUBLIC_LINK} PRIVATE_LINK ${ARG_PRIVATE_LINK})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} EXPORT KorvoTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()

# korvo_module(<name> SOURCES <file>... [LINK <target>...] [INSTALL])
#
# A library that a broker loads at run time (lib<name>.so, never linked against). INSTALL puts it into the
# installed module folder, where `korvo run --module <name>` finds it.
function(korvo_module name)
  cmake_parse_arguments(ARG "INSTALL" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} MODULE ${ARG_SOURCES})
  _korvo_common(${name} PRIVATE_LINK ${ARG_LINK})
  set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/../..")
  if(ARG_INSTALL)
    install(TARGETS ${name} LIBRARY DESTINATION ${KORVO_MODULE_DIR})
  endif()
endfunction()

# korvo_program(<name> SOURCES <file>... [LINK <target>...] [INSTALL])
function(korvo_program name)
  cmake_parse_arguments(ARG "INSTALL" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  _korvo_common(${name} PRIVATE_LINK ${ARG_LINK})
  if(ARG_INSTALL)
    set_target_properties(${name} PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
    install(TARGETS ${name} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endfunction()

# korvo_test(<name> SOURCES <file>... [LINK <target>...] [LABELS <label>...] [TIMEOUT <seconds>])
#
# A GoogleTest program, run as one test. Label `concurrent` selects it for the ThreadSanitizer run.
function(korvo_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LINK;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  _korvo_common(${name} PRIVATE_LINK ${ARG_LINK} GTest::gmock_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/tests")
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT})
endfunction()
