# Warnings are errors for everything this project compiles itself.
add_library(kelmsg_warnings INTERFACE)
target_compile_options(kelmsg_warnings INTERFACE -Wall -Wextra -Wpedantic -Werror)

if(KELMSG_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

# The fuzz targets link libFuzzer themselves; everything else they run is
# instrumented for coverage so the fuzzer can steer into the library.
if(KELMSG_BUILD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KELMSG_BUILD_FUZZ needs clang (use the fuzz preset)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Reports name a source file by its path in the project (DovSourcePath.h):
# the compiler drops the project's location from __FILE__, whether the file
# is named by its absolute path or, as ccache names it under CCACHE_BASEDIR,
# by a path relative to the build tree.
add_compile_options(-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
file(RELATIVE_PATH kelmsg_source_dir_from_build ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR})
string(REGEX REPLACE "/$" "" kelmsg_source_dir_from_build "${kelmsg_source_dir_from_build}")
if(kelmsg_source_dir_from_build)
  add_compile_options(-fmacro-prefix-map=${kelmsg_source_dir_from_build}/=)
endif()
