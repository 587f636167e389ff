# One place for what every target of this project is compiled with. Warnings are errors only in
# this project's own builds: a user's newer compiler must not fail on a warning we have not seen.
add_library(zelkernel_options INTERFACE)
target_compile_features(zelkernel_options INTERFACE cxx_std_20)
target_compile_options(zelkernel_options INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(PROJECT_IS_TOP_LEVEL)
  target_compile_options(zelkernel_options INTERFACE -Werror)
endif()
if(ZELKERNEL_SANITIZE)
  target_compile_options(zelkernel_options INTERFACE -fsanitize=${ZELKERNEL_SANITIZE}
                         -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(zelkernel_options INTERFACE -fsanitize=${ZELKERNEL_SANITIZE})
endif()
