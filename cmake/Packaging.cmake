# `cpack` (or `cmake --build <dir> --target package`) turns what `cmake --install` installs into a
# Debian package: spf-sharedmemory_<version>-<release>_<arch>.deb, installing under /usr.
#
# One package holds the library, its header, the CMake and pkg-config files and the tool. A
# libspf-sharedmemory1 / -dev split pays off when several sonames must be installable side by
# side or machines want the runtime without the header; neither is the case for a library whose
# header pulls in nothing but the standard library. The soname still allows the split later.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME spf-sharedmemory)
set(CPACK_PACKAGE_VENDOR "spf")
set(CPACK_PACKAGE_CONTACT "spf-sharedmemory maintainers <spf-sharedmemory@localhost>"
    CACHE STRING "Maintainer of the Debian package")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
    "A C++ library that gives processes on one host a named, fixed-size region of shared memory
(System V or POSIX) with an owner and an optional trustee group, and spf-shm, the
command-line tool that lists, inspects and removes such segments.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_NAME spf-sharedmemory)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
# dpkg-shlibdeps reads the Boost.Log runtime (and libc, libstdc++) off the binaries; the shlibs
# file and the ldconfig trigger let other packages depend on this library in turn.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

include(CPack)
