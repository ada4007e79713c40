# Run by CPack before it makes packages of the staged components: adds to each what Debian wants in
# every package, and to the development files the examples; compresses the manual pages.
set(gzip gzip --best --no-name)

foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} upper)
    set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
    set(share ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/${component}/usr/share)
    set(doc ${share}/doc/${package})

    file(MAKE_DIRECTORY ${doc})
    file(COPY_FILE ${CPACK_HTTP2CLIENT_DEBIAN_DIR}/copyright ${doc}/copyright)
    file(COPY_FILE ${CPACK_HTTP2CLIENT_DEBIAN_DIR}/changelog ${doc}/changelog.Debian)
    file(COPY_FILE ${CPACK_HTTP2CLIENT_CHANGELOG} ${doc}/changelog)
    file(GLOB manual ${share}/man/man[1-8]/*.[1-8])
    execute_process(COMMAND ${gzip} ${doc}/changelog.Debian ${doc}/changelog ${manual}
                    COMMAND_ERROR_IS_FATAL ANY)
endforeach()

set(doc ${CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME})
file(COPY ${CPACK_HTTP2CLIENT_EXAMPLES_DIR}
     DESTINATION ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/Development/usr/share/doc/${doc})
