# Which library AddressSanitizer lives in. Python, which is not built for it, has to have it preloaded, and what Python
# starts must then share it; clang would give each program one of its own, and no library says where the shared one is.

set(KORVO_ASAN_LIBRARY "")
if(CMAKE_CXX_FLAGS MATCHES "-fsanitize=address" AND NOT KORVO_FUZZERS)
  set(name libasan.so)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    set(name "libclang_rt.asan-${CMAKE_SYSTEM_PROCESSOR}.so")
  endif()
  execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=${name}
    OUTPUT_VARIABLE KORVO_ASAN_LIBRARY OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    cmake_path(GET KORVO_ASAN_LIBRARY PARENT_PATH folder)
    add_link_options(-shared-libasan "LINKER:-rpath,${folder}")
  endif()
endif()
