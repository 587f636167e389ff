# What is installed, and where. An application gets the library with the wrapping by any of
#   find_package(zelkernel)                 zelkernel::zelkernel (zelkernel::unwrapped: without)
#   pkg-config --libs zelkernel             (zelkernel-unwrapped: without)
#   -Wl,@DATADIR/zelkernel/zelkernel.wrap   the linker's response file, for plain makefiles
# and a C++ application that opts in, by zelkernel::cxx, zelkernel-cxx, or zelkernel-cxx.wrap with
# -lzelkernel-cxx -lzelkernel beside the other;
# and the installed tree works from wherever it is moved to.
# Components: runtime (the library), development, and tools and host-tools (tools/CMakeLists.txt).
option(ZELKERNEL_INSTALL_MULTIARCH
       "Install libraries into Debian's multiarch directory, whatever the prefix" OFF)
if(ZELKERNEL_INSTALL_MULTIARCH AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}")
endif()
set(ZEL_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/zelkernel")
set(ZEL_GENERATED_DIR "${PROJECT_BINARY_DIR}/installed")

# Libraries and headers.
install(TARGETS zelkernel_shared zelkernel_wrapped zelkernel_cxx EXPORT zelkernel
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
if(TARGET zelkernel_simulated)
  # All of it is for development: a target has an interrupt platform of its own.
  install(TARGETS zelkernel_simulated EXPORT zelkernel-simulated
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  install(FILES "${PROJECT_SOURCE_DIR}/platform/simulated/include/zelkernel/simulated_platform.h"
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zelkernel COMPONENT development)
  export(EXPORT zelkernel-simulated NAMESPACE zelkernel::
         FILE "${PROJECT_BINARY_DIR}/zelkernel-simulated-targets.cmake")
  install(EXPORT zelkernel-simulated NAMESPACE zelkernel:: FILE zelkernel-simulated-targets.cmake
    DESTINATION ${ZEL_CMAKE_DIR} COMPONENT development)
endif()

# The name of the routing table for external traffic. The ip tool reads it from /etc, which is
# outside the prefix /usr; any other prefix keeps a copy for its owner to put there.
install(CODE [[set(sysconfdir "${CMAKE_INSTALL_PREFIX}/etc")
  if(CMAKE_INSTALL_PREFIX MATCHES "^(.*)/usr$")
    set(sysconfdir "${CMAKE_MATCH_1}/etc")
  endif()]] COMPONENT runtime)
install(CODE "file(INSTALL \"${PROJECT_SOURCE_DIR}/packaging/iproute2/zelkernel.conf\"
  DESTINATION \"\${sysconfdir}/iproute2/rt_tables.d\")" COMPONENT runtime)

install(FILES "${PROJECT_SOURCE_DIR}/packaging/systemd/zelkernel-app.service"
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT development)

# The guides, which the tools' remedies name.
install(FILES "${PROJECT_SOURCE_DIR}/docs/porting.md" "${PROJECT_SOURCE_DIR}/docs/cpp-applications.md"
              "${PROJECT_SOURCE_DIR}/docs/running.md" "${PROJECT_SOURCE_DIR}/docs/real-board.md"
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/docs/pictures"
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)

# The CMake package; the build tree is one, too (-Dzelkernel_DIR=BUILD).
include(CMakePackageConfigHelpers)
export(EXPORT zelkernel NAMESPACE zelkernel:: FILE "${PROJECT_BINARY_DIR}/zelkernel-targets.cmake")
install(EXPORT zelkernel NAMESPACE zelkernel:: FILE zelkernel-targets.cmake
  DESTINATION ${ZEL_CMAKE_DIR} COMPONENT development)
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/zelkernel-config.cmake.in"
  "${PROJECT_BINARY_DIR}/zelkernel-config.cmake" INSTALL_DESTINATION ${ZEL_CMAKE_DIR})
write_basic_package_version_file("${PROJECT_BINARY_DIR}/zelkernel-config-version.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/zelkernel-config.cmake"
              "${PROJECT_BINARY_DIR}/zelkernel-config-version.cmake"
  DESTINATION ${ZEL_CMAKE_DIR} COMPONENT development)

# The linker's response file.
file(CONFIGURE OUTPUT "${ZEL_GENERATED_DIR}/zelkernel.wrap" CONTENT "${ZEL_WRAP_RESPONSE}
--push-state
--no-as-needed
-lzelkernel
--pop-state
")
list(TRANSFORM ZEL_CXX_LINK_OPTIONS REPLACE "^-Wl," "" OUTPUT_VARIABLE lines)
list(JOIN lines "\n" lines)
file(CONFIGURE OUTPUT "${ZEL_GENERATED_DIR}/zelkernel-cxx.wrap" CONTENT "${lines}\n")
install(FILES "${ZEL_GENERATED_DIR}/zelkernel.wrap" "${ZEL_GENERATED_DIR}/zelkernel-cxx.wrap"
  DESTINATION ${CMAKE_INSTALL_DATADIR}/zelkernel COMPONENT development)

# pkg-config files. They find their prefix from their own place, except below /usr: a system's tree
# that stands elsewhere is given in PKG_CONFIG_SYSROOT_DIR, which would then be counted twice. The
# library that is kept is named by its file, since Meson resolves the -l that it sees and then drops
# the -L, and not by a -L beside it, which would put the system's directories before the user's.
file(RELATIVE_PATH prefix_from_pc "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" prefix_from_pc "${prefix_from_pc}")
install(CODE "set(relocatable_prefix \"\\\${pcfiledir}/${prefix_from_pc}\")" COMPONENT development)
install(CODE [[
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(ZEL_PC_PREFIX /usr)
    set(ZEL_PC_SYSROOT "\${pc_sysrootdir}")
  else()
    set(ZEL_PC_PREFIX "${relocatable_prefix}")
    set(ZEL_PC_SYSROOT "")
  endif()]] COMPONENT development)
function(zel_install_pc name summary libs)
  set(ZEL_PC_PREFIX "@ZEL_PC_PREFIX@") # known when it is installed
  set(ZEL_PC_SYSROOT "@ZEL_PC_SYSROOT@")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/zelkernel.pc.in" "${ZEL_GENERATED_DIR}/${name}.pc.in"
                 @ONLY)
  install(CODE "configure_file(\"${ZEL_GENERATED_DIR}/${name}.pc.in\"
                               \"${ZEL_GENERATED_DIR}/${name}.pc\" @ONLY)" COMPONENT development)
  install(FILES "${ZEL_GENERATED_DIR}/${name}.pc"
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
list(JOIN ZEL_WRAP_OPTIONS " " wrap_options)
zel_keep_library(kept "\${keepdir}/libzelkernel.so")
zel_install_pc(zelkernel "${PROJECT_DESCRIPTION}" "${wrap_options} ${kept} -lzelkernel")
zel_install_pc(zelkernel-unwrapped "${PROJECT_DESCRIPTION} (no call is wrapped)" "-lzelkernel")
list(JOIN ZEL_CXX_LINK_OPTIONS " " cxx_options)
zel_install_pc(zelkernel-cxx "${PROJECT_DESCRIPTION} (std::thread included)"
  "${cxx_options} -lzelkernel-cxx ${wrap_options} ${kept} -lzelkernel")
if(TARGET zelkernel_simulated)
  # Nothing refers to it strongly; see platform/simulated/CMakeLists.txt.
  zel_keep_library(kept "\${keepdir}/libzelkernel-simulated.so")
  zel_install_pc(zelkernel-simulated "Simulated interrupt controller for libzelkernel on a host"
                 "${kept}")
endif()
