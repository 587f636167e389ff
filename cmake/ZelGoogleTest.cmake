# GTest::gtest_main and GTest::gmock: Debian's libraries on the host, built from Debian's source
# package on a target for which there are none. gtest_discover_tests() is CMake's own.
find_package(GTest CONFIG QUIET)
if(NOT GTest_FOUND)
  set(ZEL_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's source tree")
  if(NOT EXISTS "${ZEL_GOOGLETEST_SOURCE}/CMakeLists.txt")
    message(FATAL_ERROR "GoogleTest is missing: install libgtest-dev, or googletest (its sources, "
                        "for cross builds); or configure with -DZELKERNEL_BUILD_TESTS=OFF")
  endif()
  set(INSTALL_GTEST OFF CACHE INTERNAL "")
  add_subdirectory("${ZEL_GOOGLETEST_SOURCE}" googletest EXCLUDE_FROM_ALL)
endif()
