# Http2ClientBuildFlags: language level, warnings and sanitizers of everything built here. Targets
# link it privately, so nothing of it reaches users of the library. Tests, fuzzers and benchmarks are
# C++20.

option(HTTP2CLIENT_WERROR "Treat compiler warnings as errors" OFF)
set(HTTP2CLIENT_SANITIZE "" CACHE STRING
    "Sanitizers to build with, as -fsanitize= takes them: address,undefined or thread")

set(CMAKE_CXX_EXTENSIONS OFF)

add_library(Http2ClientBuildFlags INTERFACE)
target_compile_features(Http2ClientBuildFlags INTERFACE cxx_std_17)
target_compile_options(Http2ClientBuildFlags INTERFACE
    -Wall -Wextra $<$<BOOL:${HTTP2CLIENT_WERROR}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 warns of overlapping copies inside std::string's operator+, where there are none.
    target_compile_options(Http2ClientBuildFlags INTERFACE -Wno-restrict)
endif()
if(HTTP2CLIENT_SANITIZE)
    set(sanitizer_flags -fsanitize=${HTTP2CLIENT_SANITIZE} -fno-sanitize-recover=all)
    target_compile_options(Http2ClientBuildFlags INTERFACE ${sanitizer_flags}
                                                           -fno-omit-frame-pointer)
    target_link_options(Http2ClientBuildFlags INTERFACE ${sanitizer_flags})
endif()

# Makes the shared library `target` export what the linker version script `map` names, and fail to
# link when a symbol is missing. (Clang's sanitizer run time is in the program, not the library.)
function(http2client_export_only target map)
    set_target_properties(${target} PROPERTIES CXX_VISIBILITY_PRESET hidden
                                               VISIBILITY_INLINES_HIDDEN ON
                                               LINK_DEPENDS ${map})
    target_link_options(${target} PRIVATE LINKER:--version-script=${map})
    if(NOT HTTP2CLIENT_SANITIZE)
        target_link_options(${target} PRIVATE LINKER:-z,defs LINKER:-z,relro LINKER:-z,now)
    endif()
endfunction()
