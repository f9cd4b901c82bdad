# How modules and programs are declared, in this project and in yours: this file is installed with the package.
#
#   find_package(Korvo REQUIRED)
#   korvo_module(mymodule SOURCES mymodule.cpp)
#   korvo_program(myprogram SOURCES main.cpp)

include(GNUInstallDirs)

# Where modules are installed, relative to the prefix: `korvo run --module <name>` looks there.
set(KORVO_MODULE_DIR "${CMAKE_INSTALL_LIBDIR}/korvo/modules")

# What the two commands below have in common. Sets ARG_SOURCES, ARG_LINK and ARG_INSTALL where it is called.
macro(_korvo_arguments command name)
  cmake_parse_arguments(ARG "INSTALL" "" "SOURCES;LINK" ${ARGN})
  if(NOT ARG_SOURCES OR ARG_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${command}(${name}): expects SOURCES <file>... [LINK <target>...] [INSTALL]; "
                        "not understood: '${ARG_UNPARSED_ARGUMENTS}'")
  endif()
endmacro()

# rpath: from where it is installed to where the libraries are.
function(_korvo_target name link install rpath)
  target_compile_features(${name} PRIVATE cxx_std_20)
  target_link_libraries(${name} PRIVATE ${link} Korvo::hxcommon Korvo::hxproxies)
  set_target_properties(${name} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    INSTALL_RPATH "${rpath}"
    INSTALL_RPATH_USE_LINK_PATH ON)
  # These are set inside the Korvo tree only: an outside project keeps its own warnings.
  if(TARGET korvo_warnings)
    target_link_libraries(${name} PRIVATE korvo_warnings)
  endif()
  if(install)
    if(TARGET installation)
      add_dependencies(installation ${name})
    endif()
    install(TARGETS ${name}
      LIBRARY DESTINATION "${KORVO_MODULE_DIR}"
      RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  endif()
endfunction()

# korvo_module(<name> SOURCES <file>... [LINK <target>...] [INSTALL])
#
# A library that a broker loads at run time (lib<name>.so, never linked against). It is linked with what a module is
# written against, the module framework and the proxies; LINK adds to that. INSTALL puts it into KORVO_MODULE_DIR.
function(korvo_module name)
  _korvo_arguments(korvo_module ${name} ${ARGN})
  add_library(${name} MODULE ${ARG_SOURCES})
  _korvo_target(${name} "${ARG_LINK}" ${ARG_INSTALL} "$ORIGIN/../..")
  set_target_properties(${name} PROPERTIES PREFIX lib)
  # A function that nobody defines fails the link here rather than the load in a running broker. Sanitized builds
  # leave the sanitizer's own functions to the program.
  if(NOT "${CMAKE_CXX_FLAGS} ${CMAKE_MODULE_LINKER_FLAGS}" MATCHES "-fsanitize")
    target_link_options(${name} PRIVATE LINKER:--no-undefined)
  endif()
  # Likewise: an outside project keeps its own folders.
  if(KORVO_MODULE_OUTPUT_DIRECTORY)
    set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY "${KORVO_MODULE_OUTPUT_DIRECTORY}")
  endif()
endfunction()

# korvo_program(<name> SOURCES <file>... [LINK <target>...] [INSTALL])
#
# A program that has a broker of its own, or joins one: it is linked with what a module is written against, and a module
# can be a part of it. LINK adds to that. INSTALL puts it among the programs of the prefix.
function(korvo_program name)
  _korvo_arguments(korvo_program ${name} ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  _korvo_target(${name} "${ARG_LINK}" ${ARG_INSTALL} "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
endfunction()
