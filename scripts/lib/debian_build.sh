# shellcheck shell=bash
# The build that Debian packages, and the description of the binary interface, are made of.

# configure_debian_build DIR: prepares the folder DIR for `cmake --build`, with the compiler of
# Debian and its flags for packages. SOURCE_DATE_EPOCH is the changelog's date from then on: the
# same sources make the same packages.
configure_debian_build() {
    SOURCE_DATE_EPOCH=$(dpkg-parsechangelog -l cmake/debian/changelog -S Timestamp)
    export SOURCE_DATE_EPOCH
    export DEB_BUILD_MAINT_OPTIONS=hardening=+all
    CXXFLAGS="$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)" \
        LDFLAGS=$(dpkg-buildflags --get LDFLAGS) \
        logged "$1/log/configure.txt" cmake --preset package -B "$1" -DCMAKE_CXX_COMPILER=g++
}
