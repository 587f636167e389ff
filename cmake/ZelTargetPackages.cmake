# Libraries of the benchmarks and of the edge router, and the probe points' header, for a cross
# build: the cross compiler's tree does not have them, Debian's packages for the target do. They are
# unpacked below build/, not installed. Without them (no network) what needs them is left out of the
# build, and that is said.
set(ZEL_TARGET_PACKAGES libbenchmark-dev libbenchmark1debian liblwip-dev liblwip0 systemtap-sdt-dev)
list(TRANSFORM ZEL_TARGET_PACKAGES APPEND ":${ZELKERNEL_DEBIAN_TARGET}")
set(ZEL_TARGET_PACKAGES_DIR "${PROJECT_SOURCE_DIR}/build/target-packages")

execute_process(
  COMMAND "${PROJECT_SOURCE_DIR}/scripts/fetch-packages" "${PROJECT_SOURCE_DIR}/build/apt"
          "${ZEL_TARGET_PACKAGES_DIR}" ${ZEL_TARGET_PACKAGES}
  RESULT_VARIABLE result)
if(result)
  message(WARNING "Debian's packages for the target could not be had: the benchmarks, the edge "
                  "router's IP stack and the library's probe points are left out of this build")
  set(ZELKERNEL_BUILD_BENCH OFF)
  set(ZELKERNEL_DEMO_LWIP OFF)
endif()
list(APPEND CMAKE_FIND_ROOT_PATH "${ZEL_TARGET_PACKAGES_DIR}")
# The compiler itself does not look into the directory of one architecture's headers.
include_directories(SYSTEM
  "${ZEL_TARGET_PACKAGES_DIR}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}")
