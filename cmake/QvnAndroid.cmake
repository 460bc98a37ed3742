# Platform of a build with the Android NDK's CMake toolchain (which sets
# ANDROID). The log library is part of the NDK. property_get belongs to the
# platform's libcutils, which the NDK does not ship: the build takes its
# header and the device's library from the platform build of the target.
#
#   -DQVN_ANDROID_CUTILS_INCLUDE_DIR=<platform>/system/core/libcutils/include
#   -DQVN_ANDROID_CUTILS_LIBRARY=<platform>/out/target/product/<device>/system/lib64/libcutils.so
#
# The target qvnhost here stands for that platform library, so the rest of
# the build (and the installed package) links the same names on both sides.
set(QVN_ANDROID_CUTILS_INCLUDE_DIR "" CACHE PATH "Folder holding cutils/properties.h")
set(QVN_ANDROID_CUTILS_LIBRARY "" CACHE FILEPATH "The device's libcutils.so")
if(NOT EXISTS "${QVN_ANDROID_CUTILS_INCLUDE_DIR}/cutils/properties.h")
  message(FATAL_ERROR "Android build: set QVN_ANDROID_CUTILS_INCLUDE_DIR to the folder that "
                      "holds cutils/properties.h (system/core/libcutils/include)")
endif()
if(NOT EXISTS "${QVN_ANDROID_CUTILS_LIBRARY}")
  message(FATAL_ERROR "Android build: set QVN_ANDROID_CUTILS_LIBRARY to the device's libcutils.so")
endif()
foreach(option QVN_BUILD_TESTS QVN_BUILD_TOOLS QVN_BUILD_BENCH QVN_BUILD_FUZZ)
  if(${option})
    message(FATAL_ERROR "Android build: the tests, tools, benchmarks and fuzzers run on the "
                        "workstation; configure with -D${option}=OFF")
  endif()
endforeach()

add_library(android_log INTERFACE)
target_link_libraries(android_log INTERFACE log)

add_library(qvnhost INTERFACE)
target_include_directories(qvnhost INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/src>)
target_include_directories(qvnhost SYSTEM INTERFACE ${QVN_ANDROID_CUTILS_INCLUDE_DIR})
target_link_libraries(qvnhost INTERFACE ${QVN_ANDROID_CUTILS_LIBRARY})
