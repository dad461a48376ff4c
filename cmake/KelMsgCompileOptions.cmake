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
