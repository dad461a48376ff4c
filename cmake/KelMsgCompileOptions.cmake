# Warnings are errors for everything this project compiles itself.
add_library(kelmsg_warnings INTERFACE)
target_compile_options(kelmsg_warnings INTERFACE -Wall -Wextra -Wpedantic -Werror)

if(KELMSG_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()
