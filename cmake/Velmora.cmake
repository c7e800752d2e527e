# Shared settings and the functions that every folder uses to declare itself.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

# Objects name their sources relative to the root, so clones in different folders share one cache; the sloppiness lets
# precompiled headers be cached too.
add_compile_options("-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")
find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER env "CCACHE_BASEDIR=${CMAKE_SOURCE_DIR}"
    CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime "${CCACHE_PROGRAM}")
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wno-sign-conversion -Wnon-virtual-dtor -Werror)
add_compile_definitions(_FILE_OFFSET_BITS=64 VELMORA_VERSION="${PROJECT_VERSION}")
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  # libstdc++ 12 still calls what it deprecates inside std::stable_sort; systemd's headers use C99's compound literals.
  add_compile_options(-Wthread-safety -Wthread-safety-beta -Wno-deprecated-declarations -Wno-c99-extensions)
  find_program(LLD_PROGRAM NAMES ld.lld-19 ld.lld)
else()
  find_program(LLD_PROGRAM NAMES ld.lld)
endif()
if(LLD_PROGRAM)
  add_link_options(-fuse-ld=lld)
endif()

set(VELMORA_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")
if(VELMORA_SANITIZE)
  add_compile_options(-fsanitize=${VELMORA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VELMORA_SANITIZE})
endif()

# What one folder finds, its neighbours and the tests may link.
set(CMAKE_FIND_PACKAGE_TARGETS_GLOBAL ON)
# Debian's Python modules (xxhash, dbusmock) belong to Debian's interpreter, whatever else the path holds.
if(EXISTS /usr/bin/python3)
  set(Python3_EXECUTABLE /usr/bin/python3 CACHE FILEPATH "Interpreter of the tests")
endif()
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)

# velmora_pkg(<name> <pkg-config module>...) makes the imported target PkgConfig::<name>.
function(velmora_pkg name)
  pkg_check_modules(${name} REQUIRED IMPORTED_TARGET GLOBAL ${ARGN})
endfunction()

# velmora_library(<folder> [floors and libraries to link]) builds src/<folder> and its sub-folders. A folder that holds no
# code yet hands its floors through, so that the folders above it link all the same.
function(velmora_library folder)
  file(GLOB_RECURSE code CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
  if(NOT code)
    add_library(velmora_${folder} INTERFACE)
    target_include_directories(velmora_${folder} INTERFACE "${CMAKE_SOURCE_DIR}/src")
    target_link_libraries(velmora_${folder} INTERFACE ${ARGN})
    return()
  endif()
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp" "${CMAKE_CURRENT_SOURCE_DIR}/*.h")
  add_library(velmora_${folder} STATIC ${sources})
  set_target_properties(velmora_${folder} PROPERTIES LINKER_LANGUAGE CXX)
  target_include_directories(velmora_${folder} PUBLIC "${CMAKE_SOURCE_DIR}/src")
  target_link_libraries(velmora_${folder} PUBLIC Threads::Threads ${ARGN})
endfunction()

# velmora_tests(<folder> [libraries]) builds every tests/<folder>/*.cpp into one program and registers its cases.
function(velmora_tests folder)
  file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_SOURCE_DIR}/tests/${folder}/*.cpp")
  if(NOT sources)
    return()
  endif()
  add_executable(velmora_${folder}_tests ${sources})
  target_include_directories(velmora_${folder}_tests PRIVATE "${CMAKE_SOURCE_DIR}/tests")
  target_link_libraries(velmora_${folder}_tests PRIVATE ${ARGN} velmora_test_support GTest::gmock_main)
  target_precompile_headers(velmora_${folder}_tests REUSE_FROM velmora_test_headers)
  gtest_discover_tests(velmora_${folder}_tests PROPERTIES LABELS ${folder} TIMEOUT 300
    DISCOVERY_TIMEOUT 60 TEST_PREFIX "${folder}.")
endfunction()
