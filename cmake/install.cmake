# What an installed copy holds: both libraries, the host defaults, headers, a CMake package, rtmpcast.pc.
include(CMakePackageConfigHelpers)

install(TARGETS rtmpcast_shared rtmpcast_host_defaults EXPORT rtmpcastTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS rtmpcast_static ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${RTMPCAST_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/rtmpcast)
install(EXPORT rtmpcastTargets NAMESPACE rtmpcast:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/rtmpcast)

configure_package_config_file(cmake/rtmpcastConfig.cmake.in ${PROJECT_BINARY_DIR}/rtmpcastConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/rtmpcast)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/rtmpcastConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/rtmpcastConfig.cmake ${PROJECT_BINARY_DIR}/rtmpcastConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/rtmpcast)

configure_file(cmake/rtmpcast.pc.in ${PROJECT_BINARY_DIR}/rtmpcast.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/rtmpcast.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
