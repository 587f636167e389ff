# One place for what every target of this project is compiled with. Warnings are errors only where
# that is asked for, as the presets do: another compiler must not fail on a warning we have not seen.
add_library(zelkernel_options INTERFACE)
target_compile_features(zelkernel_options INTERFACE cxx_std_20)
target_compile_options(zelkernel_options INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(ZELKERNEL_WERROR)
  target_compile_options(zelkernel_options INTERFACE -Werror)
endif()
if(ZEL_TIME_HAS_TWO_WIDTHS)
  target_compile_options(zelkernel_options INTERFACE ${ZEL_TIME64_FLAGS})
  # For a target that is to be compiled with 32-bit time: to be linked after those.
  add_library(zelkernel_time32 INTERFACE)
  target_compile_options(zelkernel_time32 INTERFACE -U_TIME_BITS -U_FILE_OFFSET_BITS)
endif()
if(ZELKERNEL_SANITIZE)
  target_compile_options(zelkernel_options INTERFACE -fsanitize=${ZELKERNEL_SANITIZE}
                         -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(zelkernel_options INTERFACE -fsanitize=${ZELKERNEL_SANITIZE})
endif()
