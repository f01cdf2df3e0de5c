# The CMake package and the pkg-config file. The libraries and headers are installed where they are built.
include(CMakePackageConfigHelpers)
set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/netlink_route)

install(EXPORT netlink_route NAMESPACE netlink_route:: FILE netlink_routeTargets.cmake
    DESTINATION ${package_folder} COMPONENT netlink_route_development)
configure_package_config_file(cmake/netlink_routeConfig.cmake.in
    ${PROJECT_BINARY_DIR}/netlink_routeConfig.cmake INSTALL_DESTINATION ${package_folder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/netlink_routeConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/netlink_routeConfig.cmake ${PROJECT_BINARY_DIR}/netlink_routeConfigVersion.cmake
    DESTINATION ${package_folder} COMPONENT netlink_route_development)

foreach(folder LIBDIR INCLUDEDIR)
    set(PC_${folder} "\${prefix}/${CMAKE_INSTALL_${folder}}")
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${folder}}")
        set(PC_${folder} "${CMAKE_INSTALL_${folder}}")
    endif()
endforeach()
set(PC_TRACE -lnetlink_route_trace)
if(NETLINK_ROUTE_TRACE_LIBRARY)
    set(PC_TRACE "") # the user's own, which their programs link as they always did
endif()
# The prefix is known when the library is installed: `cmake --install` may be given another one.
set(PC_PREFIX @CMAKE_INSTALL_PREFIX@)
configure_file(cmake/netlink_route.pc.in ${PROJECT_BINARY_DIR}/netlink_route.pc.in @ONLY)
install(CODE "configure_file([[${PROJECT_BINARY_DIR}/netlink_route.pc.in]] [[${PROJECT_BINARY_DIR}/netlink_route.pc]] @ONLY)"
    COMPONENT netlink_route_development)
install(FILES ${PROJECT_BINARY_DIR}/netlink_route.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT netlink_route_development)
