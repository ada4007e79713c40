# The Debian packages that scripts/package makes with CPack, one of each install component. Version
# and revision are those of the newest entry in cmake/debian/changelog.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(debian ${PROJECT_SOURCE_DIR}/cmake/debian)
file(STRINGS ${debian}/changelog first_line LIMIT_COUNT 1)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${debian}/changelog)
if(NOT first_line MATCHES "^http2client \\(([^)-]+)-([0-9]+)\\) ")
    message(FATAL_ERROR "${debian}/changelog: not the first line of an entry: ${first_line}")
endif()
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
    message(FATAL_ERROR "${debian}/changelog: the newest entry is of version ${CMAKE_MATCH_1}, "
                        "the project's is ${PROJECT_VERSION}")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_2})
set(CPACK_DEBIAN_PACKAGE_SOURCE http2client)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The Http2Client authors <http2client@packages.invalid>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
if(HTTP2CLIENT_BUILD_STANDARD)
    list(APPEND CPACK_COMPONENTS_ALL Standard)
endif()
if(HTTP2CLIENT_BUILD_TOOLS)
    list(APPEND CPACK_COMPONENTS_ALL Tools)
endif()

# On other packages a package depends as dpkg-shlibdeps finds; among each other, on the same build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# libCLogWrapper.so.1 lies next to libHttp2Client.so.1, in the same package: it has the same version,
# only the standard edition needs it, too, and an application that replaces it puts its own before it
# in the loader's path, for which it must be a library like any other.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libhttp2client${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "Small HTTP/2 client library
Applications derive from one class, and get status, headers and body of a
response through four callbacks or from one blocking call. A background
thread does all work on the sockets. Connections are plain TCP with prior
knowledge, or TLS without ALPN and without verification of the certificate.
.
This package has the shared library of the exact edition, whose bytes on the
wire never change, and the log library that both editions write to.")

set(CPACK_DEBIAN_STANDARD_PACKAGE_NAME libhttp2clientstandard${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_STANDARD_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_STANDARD_DESCRIPTION "Small HTTP/2 client library (standard edition)
Applications derive from one class, and get status, headers and body of a
response through four callbacks or from one blocking call. A background
thread does the work on the sockets.
.
This package has the shared library of the standard edition: the interface of
the exact edition, with HTTP/2 as RFC 9113 has it. Clients share connections;
TLS verifies certificates and chooses HTTP/2 by ALPN.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libhttp2client-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "Small HTTP/2 client library (development files)
Applications derive from one class, and get status, headers and body of a
response through four callbacks or from one blocking call.
.
This package has the headers, and what CMake and pkg-config need to find the
libraries of both editions.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME http2client-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION web)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "Command-line client of HTTP/2 servers
h2request sends requests with the Http2Client library and prints the
answers: plain or over TLS, with bodies of any size, one after another or many
at once, with their timing, as text or as JSON.")

# Set, it would be the first line of all descriptions.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

set(CPACK_PRE_BUILD_SCRIPTS ${debian}/AddDocumentation.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${debian}/FinishControl.cmake)
set(CPACK_HTTP2CLIENT_DEBIAN_DIR ${debian})
set(CPACK_HTTP2CLIENT_CHANGELOG ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
set(CPACK_HTTP2CLIENT_EXAMPLES_DIR ${PROJECT_SOURCE_DIR}/examples)
include(CPack)
set(libraries Runtime)
cpack_add_component(Runtime)
if(HTTP2CLIENT_BUILD_STANDARD)
    list(APPEND libraries Standard)
    cpack_add_component(Standard DEPENDS Runtime)
endif()
cpack_add_component(Development DEPENDS ${libraries})
if(TARGET h2request-standard)
    cpack_add_component(Tools DEPENDS ${libraries})
else()
    cpack_add_component(Tools DEPENDS Runtime)
endif()
