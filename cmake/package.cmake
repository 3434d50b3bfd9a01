# make package: a Debian package of the install rules (cmake/install.cmake),
# built by CPack into the build directory. The unit is installed disabled;
# KESTRIXD_ENABLE=yes in the installer's environment enables and starts it.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kestrixd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "kestrixd maintainers <kestrixd@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "metadata controller of a shared-disk file-sharing system")
set(CPACK_PACKAGE_DESCRIPTION
  "kestrixd answers clients that see the same disks with volumes, block maps\n\
with leases, size changes and close over UDP; they read and write file data\n\
directly on the disks. Includes the localfs plug-in for ext4 and XFS, the\n\
kestrix-cli client, the kestrix-mount FUSE client and a Wireshark dissector.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_PREFIX /usr)
# The plug-in directory and /etc are absolute install paths.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# libc, libstdc++, libgcc, liburing and libfuse3 from the binaries'
# dependencies; fusermount3 for unmounting kestrix-mount comes with fuse3.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "fuse3")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "samba, tshark, bash-completion, pacemaker, resource-agents")
configure_file(${CMAKE_SOURCE_DIR}/contrib/debian/conffiles ${CMAKE_BINARY_DIR}/debian/conffiles COPYONLY)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_BINARY_DIR}/debian/conffiles
  ${CMAKE_SOURCE_DIR}/contrib/debian/postinst
  ${CMAKE_SOURCE_DIR}/contrib/debian/prerm
  ${CMAKE_SOURCE_DIR}/contrib/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
