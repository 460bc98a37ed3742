# Install rules of the CMake package and the pkg-config file.
#
# Installed tree:
#   <libdir>/libqvnlib.so.<version>, SONAME libqvnlib.so.0, and the dev link
#   <libdir>/libqvnhost.so.1 (workstation stand-in for the platform properties)
#   <includedir>/qvnlib/qvnlib.h
#   <libdir>/cmake/qvnlib/qvnlib{Config,ConfigVersion,Targets*}.cmake
#   <libdir>/pkgconfig/qvnlib.pc (relocatable: paths relative to the .pc file)
# Everything belongs to the component "qvnlib":
#   cmake --install <build> --component qvnlib --prefix <prefix>
include(CMakePackageConfigHelpers)

# The installed library finds libqvnhost beside itself and the Debian build of
# the Android log library in its own folder, wherever the prefix is.
if(NOT ANDROID)
  set_target_properties(qvnlib PROPERTIES INSTALL_RPATH "$ORIGIN;${ANDROID_LOG_LIBRARY_DIR}")
endif()

set(QVN_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/qvnlib)
install(EXPORT qvnlibTargets NAMESPACE qvnlib:: DESTINATION ${QVN_CMAKE_DIR} COMPONENT qvnlib)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/qvnlibConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/qvnlibConfig.cmake INSTALL_DESTINATION ${QVN_CMAKE_DIR})
# 0.x releases keep the table layout only within a minor version.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/qvnlibConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvnlibConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/qvnlibConfigVersion.cmake
        DESTINATION ${QVN_CMAKE_DIR} COMPONENT qvnlib)

set(QVN_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
# From the .pc file's folder back to the prefix, e.g. "../.." for lib/pkgconfig.
file(RELATIVE_PATH QVN_PC_RELATIVE_PREFIX /${QVN_PC_DIR} /)
string(REGEX REPLACE "/$" "" QVN_PC_RELATIVE_PREFIX "${QVN_PC_RELATIVE_PREFIX}")
if(ANDROID)
  set(QVN_PC_PRIVATE_LIBS "-lcutils -llog -lm")
else()
  set(QVN_PC_PRIVATE_LIBS "-lqvnhost -llog -lm")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/qvnlib.pc.in ${CMAKE_CURRENT_BINARY_DIR}/qvnlib.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qvnlib.pc DESTINATION ${QVN_PC_DIR} COMPONENT qvnlib)
