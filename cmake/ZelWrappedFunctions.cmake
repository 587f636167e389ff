# The one list of wrapped functions (cmake/wrapped_functions.txt) becomes ZEL_WRAPPED_FUNCTIONS, and
# ZEL_WRAP_OPTIONS, the linker options with which an application is linked; as ZEL_WRAP_RESPONSE the
# linker's own, one a line. The response file is installed where the packages of several machines meet
# and has the names of all of them: a name that a machine does not know is never called there.
include(CheckCXXSourceCompiles)

# On 32-bit targets the system's time has two widths, which an application chooses from. (glibc has
# the wider one from 2.34 on. Where time has had 64 bits from the start, there is one.)
set(ZEL_TIME64_FLAGS -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64)
list(JOIN ZEL_TIME64_FLAGS " " CMAKE_REQUIRED_FLAGS)
check_cxx_source_compiles("
  #include <features.h>
  #if __TIMESIZE != 32 || !defined(__USE_TIME_BITS64)
  #error
  #endif
  int main() {}" ZEL_TIME_HAS_TWO_WIDTHS)
unset(CMAKE_REQUIRED_FLAGS)

set(ZEL_WRAPPED_FUNCTIONS_FILE "${CMAKE_CURRENT_LIST_DIR}/wrapped_functions.txt")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${ZEL_WRAPPED_FUNCTIONS_FILE}")
file(STRINGS "${ZEL_WRAPPED_FUNCTIONS_FILE}" ZEL_WRAPPED_FUNCTIONS REGEX "^[A-Za-z_]")
list(TRANSFORM ZEL_WRAPPED_FUNCTIONS PREPEND "--wrap=" OUTPUT_VARIABLE ZEL_WRAP_RESPONSE)
list(TRANSFORM ZEL_WRAP_RESPONSE REPLACE " time64$" "")
list(JOIN ZEL_WRAP_RESPONSE "\n" ZEL_WRAP_RESPONSE)
if(NOT ZEL_TIME_HAS_TWO_WIDTHS)
  list(FILTER ZEL_WRAPPED_FUNCTIONS EXCLUDE REGEX " time64$")
endif()
list(TRANSFORM ZEL_WRAPPED_FUNCTIONS REPLACE " time64$" "")
list(TRANSFORM ZEL_WRAPPED_FUNCTIONS PREPEND "-Wl,--wrap=" OUTPUT_VARIABLE ZEL_WRAP_OPTIONS)

# zel_keep_library(RESULT LIBRARY): the option that links LIBRARY, a file or -lNAME, whether or not
# it seems to be used.
function(zel_keep_library result library)
  set(${result} "-Wl,--push-state,--no-as-needed,${library},--pop-state" PARENT_SCOPE)
endfunction()
