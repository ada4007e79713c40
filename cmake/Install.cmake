# What `cmake --install` adds to libraries, headers and client: the files by which find_package
# and pkg-config find them. Components: Runtime, Development, Tools.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Http2Client)

configure_package_config_file(cmake/Http2ClientConfig.cmake.in
    ${PROJECT_BINARY_DIR}/cmake/Http2ClientConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/Http2ClientConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/cmake/Http2ClientConfig.cmake
              ${PROJECT_BINARY_DIR}/cmake/Http2ClientConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT Development)
install(EXPORT Http2ClientTargets NAMESPACE Http2Client:: DESTINATION ${package_dir}
        COMPONENT Development)

# The .pc file finds the prefix from its own place, so that an installed tree can be moved.
file(RELATIVE_PATH pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/Http2Client.pc.in ${PROJECT_BINARY_DIR}/cmake/Http2Client.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/cmake/Http2Client.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# As a part of another build, the names of targets are that build's.
if(PROJECT_IS_TOP_LEVEL)
    add_custom_target(uninstall
        COMMAND ${CMAKE_COMMAND} -D BINARY_DIR=${PROJECT_BINARY_DIR}
                -P ${PROJECT_SOURCE_DIR}/cmake/Uninstall.cmake
        COMMENT "Removing what was installed"
        VERBATIM)
endif()
