# What an installed copy holds: both libraries, the host defaults, headers, a CMake package, rtmpcast.pc. The
# copy can be moved: nothing in it names the place where it was installed, or built.
include(CMakePackageConfigHelpers)
set(RTMPCAST_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/rtmpcast)
set(RTMPCAST_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS rtmpcast_shared rtmpcast_host_defaults EXPORT rtmpcastTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The static library is a component of the package: it asks its users for libcrypto.
install(TARGETS rtmpcast_static EXPORT rtmpcastStaticTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${RTMPCAST_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/rtmpcast)
install(EXPORT rtmpcastTargets NAMESPACE rtmpcast:: DESTINATION ${RTMPCAST_PACKAGE_DIR})
install(EXPORT rtmpcastStaticTargets NAMESPACE rtmpcast:: DESTINATION ${RTMPCAST_PACKAGE_DIR})

configure_package_config_file(cmake/rtmpcastConfig.cmake.in ${PROJECT_BINARY_DIR}/rtmpcastConfig.cmake
                              INSTALL_DESTINATION ${RTMPCAST_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/rtmpcastConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/rtmpcastConfig.cmake ${PROJECT_BINARY_DIR}/rtmpcastConfigVersion.cmake
        DESTINATION ${RTMPCAST_PACKAGE_DIR})

# The prefix as seen from the directory of rtmpcast.pc.
file(RELATIVE_PATH RTMPCAST_PC_TO_PREFIX /prefix/${RTMPCAST_PC_DIR} /prefix)
string(REGEX REPLACE "/$" "" RTMPCAST_PC_TO_PREFIX "${RTMPCAST_PC_TO_PREFIX}")
configure_file(cmake/rtmpcast.pc.in ${PROJECT_BINARY_DIR}/rtmpcast.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/rtmpcast.pc DESTINATION ${RTMPCAST_PC_DIR})
