# What the build needs from the system. tools/packages.txt lists the Debian packages that bring it.

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED) # its headers
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
find_package(nlohmann_json REQUIRED)
# The package is called msgpack, its header-only target msgpackc-cxx.
find_package(msgpack CONFIG REQUIRED)
find_package(CLI11 REQUIRED)
find_package(PkgConfig REQUIRED)
# By pkg-config, for the compiled library: its CMake package has the headers alone, which cost each source 10 seconds.
pkg_check_modules(TOML REQUIRED IMPORTED_TARGET tomlplusplus)
find_package(SQLite3 REQUIRED)
find_package(ZLIB REQUIRED)
pkg_check_modules(ZSTD REQUIRED IMPORTED_TARGET libzstd)
pkg_check_modules(LZ4 REQUIRED IMPORTED_TARGET liblz4)
pkg_check_modules(EDIT REQUIRED IMPORTED_TARGET libedit)
if(KORVO_TESTS)
  find_package(GTest REQUIRED)
  find_package(rapidcheck REQUIRED)
endif()
if(KORVO_BENCH)
  find_package(benchmark REQUIRED)
endif()
