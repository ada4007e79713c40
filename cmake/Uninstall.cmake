# cmake -D BINARY_DIR=DIR -P Uninstall.cmake: removes what `cmake --install` of that build directory
# has installed, as its manifest lists it, and the folders of the library's own that are empty then.
# DESTDIR is honoured. What is gone already is no error. Components that were installed one by one
# stay: their manifests look like those that CPack leaves, of files that belong to dpkg.
set(manifest ${BINARY_DIR}/install_manifest.txt)
if(NOT EXISTS ${manifest})
    message(FATAL_ERROR "Nothing to remove: there is no ${manifest}")
endif()

set(folders "")
file(STRINGS ${manifest} files)
foreach(file IN LISTS files)
    set(file "$ENV{DESTDIR}${file}")
    if(EXISTS "${file}" OR IS_SYMLINK "${file}")
        message(STATUS "Removing: ${file}")
        file(REMOVE "${file}")
    endif()
    cmake_path(GET file PARENT_PATH folder)
    list(APPEND folders "${folder}")
endforeach()

# lib, include and the like belong to everybody, empty or not.
list(REMOVE_DUPLICATES folders)
list(FILTER folders INCLUDE REGEX "/(Http2Client|CLogWrapper)$")
foreach(folder IN LISTS folders)
    file(GLOB left LIST_DIRECTORIES true "${folder}/*" "${folder}/.*")
    if(IS_DIRECTORY "${folder}" AND NOT left)
        message(STATUS "Removing: ${folder}")
        file(REMOVE_RECURSE "${folder}")
    endif()
endforeach()
file(REMOVE ${manifest})
