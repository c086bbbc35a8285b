# Packages, made by `cpack` in a build folder from what `cmake --install`
# puts in place:
#   POSIX:   a Debian package   liblocal_<version>_<arch>.deb
#   Windows: a zip              liblocal-<version>-win64.zip (win32 when 32-bit)
# Either one works wherever it is unpacked: the CMake package and the
# pkg-config file find the prefix from their own location, and the tool finds
# the library beside itself (Windows) or through a run path relative to
# itself (POSIX).

if(TARGET llocal AND NOT WIN32)
  file(RELATIVE_PATH _ll_bin_to_lib /_p/${CMAKE_INSTALL_BINDIR} /_p/${CMAKE_INSTALL_LIBDIR})
  set_target_properties(llocal PROPERTIES INSTALL_RPATH "$ORIGIN/${_ll_bin_to_lib}")
endif()

set(CPACK_PACKAGE_NAME liblocal)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "liblocal developers")
set(CPACK_PACKAGE_CONTACT "liblocal developers <liblocal-dev@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Cross-platform porting library with a plain C interface")
set(CPACK_PACKAGE_DESCRIPTION
  "The porting layer of the backup product's daemons and tools: text and message
catalogs, paths and files, codecs, regular expressions, time, options,
threads, processes, sockets and services behind one C interface. The package
holds the shared library, its headers, a CMake package, a pkg-config file, the
English message catalog and the llocal command-line tool.")
# Installed programs and libraries lose their debugging sections; the build
# folder keeps them.
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_CHECKSUM SHA256)
set(CPACK_SOURCE_GENERATOR "")

if(WIN32)
  set(CPACK_GENERATOR ZIP)
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    set(CPACK_SYSTEM_NAME win64)
  else()
    set(CPACK_SYSTEM_NAME win32)
  endif()
  set(CPACK_PACKAGE_FILE_NAME ${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}-${CPACK_SYSTEM_NAME})
  set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
  set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
  # A shlibs file (other packages built against this one depend on it by
  # SONAME) and the ldconfig trigger.
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
  find_program(LL_DPKG_SHLIBDEPS dpkg-shlibdeps)
  mark_as_advanced(LL_DPKG_SHLIBDEPS)
  if(LL_DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  else()
    # Without the Debian tools the run-time dependencies are stated: the C
    # and C++ run-time libraries the library and the tool link.
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libgcc-s1, libstdc++6")
  endif()
endif()

include(CPack)
