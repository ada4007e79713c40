# What `cmake --install` installs, by component: Runtime (the exact edition and the log), Standard (the
# standard edition), Development, Tools.
include(CMakePackageConfigHelpers)

set(libraries Http2Client)
if(TARGET CLogWrapper)
    list(APPEND libraries CLogWrapper)
    install(FILES CLogWrapper/CLogWrapper.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/CLogWrapper
            COMPONENT Development)
endif()
install(TARGETS ${libraries} EXPORT Http2ClientTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
                NAMELINK_COMPONENT Development)
install(FILES Http2Client/HttpClientInterface.h Http2Client/httpClientApi.h Http2Client/error.h
              Http2Client/PlatformDef.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Http2Client COMPONENT Development)
if(TARGET Http2ClientStandard)
    install(TARGETS Http2ClientStandard EXPORT Http2ClientTargets
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Standard
                    NAMELINK_COMPONENT Development)
    install(FILES Http2ClientStandard/Http2ClientOptions.h
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/Http2Client COMPONENT Development)
endif()
install(FILES docs/man/Http2Client.3 DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
        COMPONENT Development)

if(TARGET h2request)
    install(TARGETS h2request RUNTIME COMPONENT Tools)
    install(FILES tools/completion/h2request
            DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT Tools)
endif()
if(TARGET h2request-standard)
    install(TARGETS h2request-standard
            RUNTIME DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/Http2Client COMPONENT Tools)
endif()
foreach(program h2request h2request-standard)
    if(TARGET ${program}_man_page)
        install(FILES ${PROJECT_BINARY_DIR}/tools/${program}.1
                DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT Tools)
    endif()
endforeach()

# For find_package and pkg-config.
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

# A .pc file finds the prefix from its own place, so that an installed tree can be moved.
file(RELATIVE_PATH pc_prefix /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
function(install_pc_file name description)
    configure_file(cmake/Http2Client.pc.in ${PROJECT_BINARY_DIR}/cmake/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/cmake/${name}.pc
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)
endfunction()
install_pc_file(Http2Client "${PROJECT_DESCRIPTION}")
if(TARGET Http2ClientStandard)
    install_pc_file(Http2ClientStandard "${PROJECT_DESCRIPTION}, standard edition")
endif()

# As a part of another build, the names of targets are that build's.
if(PROJECT_IS_TOP_LEVEL)
    add_custom_target(uninstall
        COMMAND ${CMAKE_COMMAND} -D BINARY_DIR=${PROJECT_BINARY_DIR}
                -P ${PROJECT_SOURCE_DIR}/cmake/Uninstall.cmake
        COMMENT "Removing what was installed"
        VERBATIM)
endif()
