# How this project declares its targets. Every library, module, program and test goes through one of the
# functions below, so that warnings, visibility, output folders and install rules are stated once.
# korvo_module stands in KorvoModule.cmake, because outside projects use it too.

include("${CMAKE_CURRENT_LIST_DIR}/KorvoModule.cmake")

set(KORVO_MODULE_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/${KORVO_MODULE_DIR}")

# All that is installed, and nothing else.
add_custom_target(installation)

add_library(korvo_warnings INTERFACE)
target_compile_options(korvo_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-qual -Wcast-align
  -Wnon-virtual-dtor -Woverloaded-virtual -Wdouble-promotion -Wformat=2 -Wundef -Wunused -Wvla
  $<$<CXX_COMPILER_ID:GNU>:-Wduplicated-cond -Wduplicated-branches -Wlogical-op -Wuseless-cast>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
  # g++ 12 sees overlapping copies in `"literal" + std::string`, where there are none.
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
  # In a unity build every source is an included file, where g++ takes the anonymous namespace for a header's.
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:$<TARGET_PROPERTY:UNITY_BUILD>>>:-Wno-subobject-linkage>
  $<$<BOOL:${KORVO_WERROR}>:-Werror>)

function(_korvo_common target)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "PUBLIC_LINK;PRIVATE_LINK;UNPARSED")
  if(ARG_UNPARSED)
    message(FATAL_ERROR "${target}: not understood: '${ARG_UNPARSED}'")
  endif()
  target_compile_features(${target} PUBLIC cxx_std_20)
  # Nothing replaces our functions from outside: calls inside a library need not go through the linker's tables.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition)
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
# PUBLIC_LINK is for what the public headers include; KorvoPackage.cmake makes the installed package find it.
function(korvo_library name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;PUBLIC_LINK;PRIVATE_LINK")
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(Korvo::${name} ALIAS ${name})
  _korvo_common(${name}
    PUBLIC_LINK ${ARG_PUBLIC_LINK} PRIVATE_LINK ${ARG_PRIVATE_LINK} UNPARSED ${ARG_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  # Before 1.0 a minor version may change the binary interface.
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
    INSTALL_RPATH "$ORIGIN")
  target_link_options(${name} PRIVATE LINKER:-Bsymbolic-functions)
  if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_link_options(${name} PRIVATE LINKER:--no-undefined)
  endif()
  set_property(GLOBAL APPEND PROPERTY KORVO_PUBLIC_LINK ${ARG_PUBLIC_LINK})
  add_dependencies(installation ${name})
  install(TARGETS ${name} EXPORT KorvoTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()

# korvo_part(<name> SOURCES <file>... [LINK <target>...])
#
# A static library for use inside this tree only: a part of a program or module that tests link too, or a testing
# kit. Headers stand beside the caller's CMakeLists.txt. Not installed.
function(korvo_part name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "" "SOURCES;LINK")
  add_library(${name} STATIC ${ARG_SOURCES})
  _korvo_common(${name} PUBLIC_LINK ${ARG_LINK} UNPARSED ${ARG_UNPARSED_ARGUMENTS})
  target_include_directories(${name} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
endfunction()

add_custom_target(concurrent_tests)

# korvo_test(<name> SOURCES <file>... [LINK <target>...] [LABELS <label>...] [TIMEOUT <seconds>])
#
# A GoogleTest program, run as one test. Label `concurrent` selects it for the ThreadSanitizer run, and makes it part of
# the target `concurrent_tests`, which is all that this run builds. A test that takes longer than TIMEOUT (300 s) is taken
# to hang: ten times what it takes on a machine of its own, since machines are shared.
function(korvo_test name)
  cmake_parse_arguments(PARSE_ARGV 1 ARG "" "TIMEOUT" "SOURCES;LINK;LABELS")
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 300)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  _korvo_common(${name} PRIVATE_LINK ${ARG_LINK} GTest::gmock_main UNPARSED ${ARG_UNPARSED_ARGUMENTS})
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/tests")
  target_compile_options(${name} PRIVATE ${KORVO_TEST_OPTIONS})
  if("concurrent" IN_LIST ARG_LABELS)
    add_dependencies(concurrent_tests ${name})
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}" TIMEOUT ${ARG_TIMEOUT})
endfunction()
