# The one list of wrapped functions (cmake/wrapped_functions.txt) becomes ZEL_WRAP_OPTIONS, the
# linker options with which an application is linked.
set(ZEL_WRAPPED_FUNCTIONS_FILE "${CMAKE_CURRENT_LIST_DIR}/wrapped_functions.txt")
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${ZEL_WRAPPED_FUNCTIONS_FILE}")
file(STRINGS "${ZEL_WRAPPED_FUNCTIONS_FILE}" ZEL_WRAPPED_FUNCTIONS REGEX "^[A-Za-z_]")
list(TRANSFORM ZEL_WRAPPED_FUNCTIONS PREPEND "-Wl,--wrap=" OUTPUT_VARIABLE ZEL_WRAP_OPTIONS)
