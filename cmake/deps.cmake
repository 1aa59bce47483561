# The names under which CMake finds what tools/setup installs.
if(DEFINED ENV{VELMAR_DEPS})
  set(_deps_default "$ENV{VELMAR_DEPS}")
else()
  set(_deps_default "$ENV{HOME}/.cache/velmar/deps")
endif()
set(DEPS_DIR "${_deps_default}" CACHE PATH "the directory that tools/setup filled")
if(NOT EXISTS "${DEPS_DIR}/bin/flatc")
  message(FATAL_ERROR "dependencies are missing in ${DEPS_DIR}: run tools/setup")
endif()

find_package(Threads REQUIRED)                       # Threads::Threads
find_package(RocksDB CONFIG REQUIRED)                # RocksDB::rocksdb-shared
find_package(roaring CONFIG REQUIRED)                # roaring::roaring
find_package(Boost 1.81 REQUIRED COMPONENTS context) # Boost::headers Boost::context
find_package(CURL REQUIRED)                          # CURL::libcurl
find_package(OpenSSL 3 REQUIRED)                     # OpenSSL::SSL OpenSSL::Crypto
find_package(LibXml2 REQUIRED)                       # LibXml2::LibXml2
find_package(ZLIB REQUIRED)                          # ZLIB::ZLIB
find_package(fmt CONFIG REQUIRED)                    # fmt::fmt
find_package(json-c CONFIG REQUIRED)                 # json-c::json-c
find_package(GTest CONFIG REQUIRED)                  # GTest::gtest_main GTest::gmock_main
find_package(benchmark CONFIG REQUIRED)              # benchmark::benchmark
find_package(PkgConfig REQUIRED)
foreach(pc lmdb libdeflate ck yajl libpcre liblz4 libzstd libevent libevent_pthreads libevent_openssl uuid)
  pkg_check_modules(${pc} REQUIRED IMPORTED_TARGET ${pc}) # PkgConfig::lmdb ...
endforeach()

file(GLOB _llhttp_sources "${DEPS_DIR}/llhttp/*.c")
add_library(llhttp STATIC ${_llhttp_sources})
target_compile_options(llhttp PRIVATE -w -O2)
target_compile_definitions(llhttp PUBLIC LLHTTP_STRICT_MODE=1) # a bare LF ends no line
target_include_directories(llhttp SYSTEM PUBLIC "${DEPS_DIR}/llhttp")

# C only. Its sanitizer build carries a weak __asan_default_options of its own: renamed away.
add_library(mdbx STATIC "${DEPS_DIR}/libmdbx/mdbx.c")
target_compile_definitions(mdbx PRIVATE NDEBUG=1 MDBX_BUILD_SHARED_LIBRARY=0 "MDBX_BUILD_FLAGS=\"cmake\""
                                        __asan_default_options=mdbx_unused_asan_options)
target_compile_options(mdbx PRIVATE -w -O2)
target_include_directories(mdbx SYSTEM PUBLIC "${DEPS_DIR}/libmdbx")
target_link_libraries(mdbx PUBLIC Threads::Threads)

add_library(fbs INTERFACE) # <flatbuffers/...> and <flatbuffers64/...>
target_include_directories(fbs SYSTEM INTERFACE "${DEPS_DIR}/include")

# velmar_schema(TARGET 32|64 a.fbs ...): a.fbs becomes "fbs32/a_generated.h" or
# "fbs64/a_generated.h" on the include path of TARGET and of whoever links it.
function(velmar_schema target width)
  set(dir "${CMAKE_CURRENT_BINARY_DIR}/schema-${target}/fbs${width}")
  file(MAKE_DIRECTORY "${dir}")
  foreach(f IN LISTS ARGN)
    get_filename_component(src "${f}" ABSOLUTE)
    get_filename_component(stem "${f}" NAME_WE)
    if(width EQUAL 64)
      set(cmd "${DEPS_DIR}/bin/flatc64" "${dir}")
    else()
      set(cmd "${DEPS_DIR}/bin/flatc" --cpp --scoped-enums -o "${dir}")
    endif()
    add_custom_command(OUTPUT "${dir}/${stem}_generated.h" COMMAND ${cmd} "${src}" DEPENDS "${src}" VERBATIM)
    list(APPEND outputs "${dir}/${stem}_generated.h")
  endforeach()
  add_custom_target(${target}_schema${width} DEPENDS ${outputs})
  add_dependencies(${target} ${target}_schema${width})
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "INTERFACE_LIBRARY")
    set(scope INTERFACE)
  else()
    set(scope PUBLIC)
  endif()
  target_include_directories(${target} SYSTEM ${scope} "${dir}/..")
  target_link_libraries(${target} ${scope} fbs)
endfunction()
