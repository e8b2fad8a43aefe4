# `cpack -G DEB`: one Debian package for each component of the installation.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mirelsnap)
set(CPACK_PACKAGE_VENDOR mirelsnap)
set(CPACK_PACKAGE_CONTACT "The mirelsnap developers <mirelsnap@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL libmirelsnap1 libmirelsnap-dev mirelsnap mirelsnap-dkms)
set(CPACK_STRIP_FILES ON)
# A folder is 755, whatever the umask of who builds.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_LIBMIRELSNAP1_PACKAGE_NAME libmirelsnap1)
set(CPACK_DEBIAN_LIBMIRELSNAP1_PACKAGE_SECTION libs)
# modprobe loads the driver.
set(CPACK_DEBIAN_LIBMIRELSNAP1_PACKAGE_DEPENDS kmod)
# Renews the loader's cache.
set(CPACK_DEBIAN_LIBMIRELSNAP1_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_DEBIAN_LIBMIRELSNAP1_DESCRIPTION
"point-in-time snapshots of mounted volumes (shared library)
A backup agent loads this library and takes snapshots of one or more mounted
volumes as one set, at one instant. It mounts the snapshots read-only, backs
them up, and deletes them. The library drives a copy-on-write driver in the
kernel, which is not part of this package.")

set(CPACK_DEBIAN_LIBMIRELSNAP-DEV_PACKAGE_NAME libmirelsnap-dev)
set(CPACK_DEBIAN_LIBMIRELSNAP-DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBMIRELSNAP-DEV_PACKAGE_SHLIBDEPS OFF)
# The static library needs libmount and libuuid, which the .pc file names.
set(CPACK_DEBIAN_LIBMIRELSNAP-DEV_PACKAGE_DEPENDS
  "libmirelsnap1 (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}), libmount-dev, uuid-dev")
set(CPACK_DEBIAN_LIBMIRELSNAP-DEV_DESCRIPTION
"point-in-time snapshots of mounted volumes (development files)
The headers of the agent's interface and of the driver's, the static library,
the CMake package, the pkg-config file and the manual page libmirelsnap(3).")

set(CPACK_DEBIAN_MIRELSNAP_PACKAGE_NAME mirelsnap)
set(CPACK_DEBIAN_MIRELSNAP_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_MIRELSNAP_PACKAGE_DEPENDS kmod)
set(CPACK_DEBIAN_MIRELSNAP_PACKAGE_CONTROL_EXTRA
  "${PROJECT_SOURCE_DIR}/packaging/debian/postinst;${PROJECT_SOURCE_DIR}/packaging/debian/postrm")
set(CPACK_DEBIAN_MIRELSNAP_DESCRIPTION
"point-in-time snapshots of mounted volumes (programs)
mirelsnap takes snapshots of mounted volumes, runs a backup command on them and
cleans up. It tells what stands in the way of a snapshot, what is snapped, which
blocks changed, and removes what killed agents left, also at boot.
.
mirelsnap-emulator plays the kernel's snapshot driver in user space, on real file
systems and devices, for trying and testing.")

set(CPACK_DEBIAN_MIRELSNAP-DKMS_PACKAGE_NAME mirelsnap-dkms)
set(CPACK_DEBIAN_MIRELSNAP-DKMS_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_MIRELSNAP-DKMS_PACKAGE_SECTION kernel)
set(CPACK_DEBIAN_MIRELSNAP-DKMS_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_MIRELSNAP-DKMS_PACKAGE_DEPENDS dkms)
# The scripts name the version.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/packaging/dkms-control)
foreach(script postinst prerm)
  configure_file(packaging/dkms/${script}.in ${PROJECT_BINARY_DIR}/packaging/dkms-control/${script} @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  list(APPEND dkms_scripts ${PROJECT_BINARY_DIR}/packaging/dkms-control/${script})
endforeach()
set(CPACK_DEBIAN_MIRELSNAP-DKMS_PACKAGE_CONTROL_EXTRA "${dkms_scripts}")
set(CPACK_DEBIAN_MIRELSNAP-DKMS_DESCRIPTION
"point-in-time snapshots of mounted volumes (kernel driver's sources)
The copy-on-write driver mirelsnap, which DKMS builds for every kernel whose
headers are installed. It is made for Debian's 6.1 and 6.12.")

string(TIMESTAMP today "%a, %d %b %Y 00:00:00 +0000" UTC)
configure_file(packaging/debian/changelog.in ${PROJECT_BINARY_DIR}/packaging/changelog)
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/packaging/changelog COMMAND_ERROR_IS_FATAL ANY)
foreach(package ${CPACK_COMPONENTS_ALL})
  install(FILES LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} RENAME copyright COMPONENT ${package})
  install(FILES ${PROJECT_BINARY_DIR}/packaging/changelog.gz DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package}
    RENAME changelog.Debian.gz COMPONENT ${package})
endforeach()

include(CPack)
