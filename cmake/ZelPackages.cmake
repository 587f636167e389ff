# Debian packages, made by `cpack` in a build tree whose preset installs into multiarch paths:
# libzelkernel1, libzelkernel-dev, zelkernel-tools. scripts/package builds them for host and target.
find_program(ZEL_DPKG_SHLIBDEPS dpkg-shlibdeps)
find_program(ZEL_GZIP gzip)
if(NOT ZEL_DPKG_SHLIBDEPS OR NOT ZEL_GZIP OR NOT ZELKERNEL_INSTALL_MULTIARCH)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "libzelkernel")
set(CPACK_PACKAGE_CONTACT "libzelkernel maintainers <maintainers@zelkernel.example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
if(ZELKERNEL_BUILD_TOOLS)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SOURCE zelkernel)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)

if(ZELKERNEL_DEBIAN_TARGET)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ZELKERNEL_DEBIAN_TARGET})
else()
  execute_process(COMMAND dpkg --print-architecture COMMAND_ERROR_IS_FATAL ANY
                  OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE
                  OUTPUT_STRIP_TRAILING_WHITESPACE)
endif()

# `cpack` reads this file first and asks there for the packages that the binaries need. Its own way
# (CPACK_DEBIAN_PACKAGE_SHLIBDEPS) fails for a cross build, and adds scripts that call ldconfig,
# where a trigger is Debian's way.
set(library_path "")
if(CMAKE_CROSSCOMPILING)
  set(library_path "-l${ZEL_TARGET_ROOT}/lib") # the cross compiler's tree
endif()
set(CPACK_PROJECT_CONFIG_FILE "${PROJECT_BINARY_DIR}/package-depends.cmake")
set(tool_binaries "")
if(ZELKERNEL_BUILD_TOOLS)
  get_property(tools DIRECTORY "${PROJECT_SOURCE_DIR}/tools" PROPERTY BUILDSYSTEM_TARGETS)
  foreach(tool IN LISTS tools)
    get_property(type TARGET ${tool} PROPERTY TYPE)
    if(type STREQUAL EXECUTABLE)
      list(APPEND tool_binaries "$<TARGET_FILE:${tool}>")
    endif()
  endforeach()
endif()
configure_file("${CMAKE_CURRENT_LIST_DIR}/ZelPackageDepends.cmake.in"
               "${PROJECT_BINARY_DIR}/package-depends.cmake.in" @ONLY)
file(GENERATE OUTPUT "${CPACK_PROJECT_CONFIG_FILE}"
     INPUT "${PROJECT_BINARY_DIR}/package-depends.cmake.in")

# CPack 3.25 knows no Multi-Arch field; it stands after the section.
set(multi_arch_same "\nMulti-Arch: same")
set(multi_arch_foreign "\nMulti-Arch: foreign")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzelkernel${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION "libs${multi_arch_same}")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzelkernel-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION "libdevel${multi_arch_same}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME zelkernel-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION "utils${multi_arch_foreign}")

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each description has its own, in its first line
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "real-time kernel services for ported applications
Operating-system services for an application that was written for a real-time
kernel and now runs on Linux: its thread, lock, wait, sleep and clock calls get
the kernel's scheduling model and rules. Beside them stand a tick-driven
kernel-call thread, interrupt emulation and virtual routing instances.")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "real-time kernel services (development files)
Headers, CMake package, pkg-config files and the linker's response file, which
link an application with its calls wrapped; and, for development on a host, a
simulated interrupt controller.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "real-time kernel services (tools)
Programs that tell what the library will find on a machine, which calls of an
application would pass by the library, what a running application does, and why
it was late.")

# Policy's files, for the packages only: `cmake --install` leaves them out.
set(packaging_dir "${PROJECT_SOURCE_DIR}/packaging/debian")
set(policy_dir "${PROJECT_BINARY_DIR}/package-policy")
file(MAKE_DIRECTORY "${policy_dir}")
execute_process(COMMAND ${ZEL_GZIP} -9nc "${packaging_dir}/changelog"
                OUTPUT_FILE "${policy_dir}/changelog.gz" COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
  string(TOUPPER ${component} COMPONENT)
  set(package ${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME})
  install(FILES "${packaging_dir}/copyright" "${policy_dir}/changelog.gz"
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
  if(EXISTS "${packaging_dir}/${package}.lintian-overrides")
    install(FILES "${packaging_dir}/${package}.lintian-overrides" RENAME ${package}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
endforeach()

file(WRITE "${policy_dir}/compress-manuals.cmake" "
  file(GLOB_RECURSE manuals \"\${CPACK_TEMPORARY_DIRECTORY}/*/usr/share/man/*\")
  if(manuals)
    execute_process(COMMAND ${ZEL_GZIP} -9n \${manuals} COMMAND_ERROR_IS_FATAL ANY)
  endif()\n")
set(CPACK_PRE_BUILD_SCRIPTS "${policy_dir}/compress-manuals.cmake")

# The library for its dependents, and the loader's cache.
set(triggers "${policy_dir}/triggers")
file(WRITE "${triggers}" "activate-noawait ldconfig\n")
function(zel_control_files component package library)
  set(shlibs "${policy_dir}/${component}/shlibs")
  file(WRITE "${shlibs}" "${library} ${PROJECT_VERSION_MAJOR} ${package} (>= ${PROJECT_VERSION})\n")
  string(TOUPPER ${component} COMPONENT)
  set(CPACK_DEBIAN_${COMPONENT}_PACKAGE_CONTROL_EXTRA "${triggers};${shlibs}" PARENT_SCOPE)
endfunction()
set(conffiles "${policy_dir}/conffiles")
file(WRITE "${conffiles}" "/etc/iproute2/rt_tables.d/zelkernel.conf\n")
zel_control_files(runtime ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} libzelkernel)
list(APPEND CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${conffiles}")
if(TARGET zelkernel_simulated)
  zel_control_files(development libzelkernel-dev libzelkernel-simulated)
endif()

include(CPack)
