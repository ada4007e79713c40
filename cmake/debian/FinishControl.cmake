# Run by CPack when it has made the packages: gives them the control data that Debian asks for and
# CPack 3.25 cannot write. A library's scripts that call ldconfig become a trigger, and the packages
# of several architectures can be installed side by side.
set(scratch ${CPACK_TEMPORARY_DIRECTORY}/finish)

foreach(package IN LISTS CPACK_PACKAGE_FILES)
    file(REMOVE_RECURSE ${scratch})
    execute_process(COMMAND dpkg-deb --raw-extract ${package} ${scratch}
                    COMMAND_ERROR_IS_FATAL ANY)
    set(control ${scratch}/DEBIAN)

    if(EXISTS ${control}/shlibs)
        file(REMOVE ${control}/postinst ${control}/postrm)
        file(WRITE ${control}/triggers "activate-noawait ldconfig\n")
    endif()

    set(multi_arch same)
    if(package MATCHES "-tools_")
        set(multi_arch foreign)
    endif()
    file(READ ${control}/control fields)
    string(REGEX REPLACE "\nPackage: " "\nMulti-Arch: ${multi_arch}\nPackage: " fields "${fields}")
    file(WRITE ${control}/control "${fields}")

    execute_process(COMMAND dpkg-deb --root-owner-group -Zxz --build ${scratch} ${package}
                    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(REMOVE_RECURSE ${scratch})
