# The Debian package: `cpack -G DEB` in the build folder. It holds exactly
# what cmake/install.cmake installs.
set(CPACK_PACKAGE_NAME usbmgrd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "usbmgrd maintainers <usbmgrd@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "USB storage manager daemon: mounts USB disks and shares them by Samba and MiniDLNA")
set(CPACK_PACKAGE_DESCRIPTION "usbmgrd mounts every partition of a USB disk when it arrives, remembers the disk, shares its volumes through Samba and MiniDLNA and answers a management bus (D-Bus, org.orbiil.USBMGR_DMON); dusbd feeds it the kernel's hot-plug events. The daemon runs the machine's smbd, nmbd and minidlnad itself with its own configuration.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# What the daemon runs: Samba (smbd, nmbd, pdbedit), MiniDLNA, the FUSE
# mounts of NTFS and exFAT, killall and ps, useradd (the Samba adapters), the
# bus; the libraries' own dependencies come from dpkg-shlibdeps.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "dbus, samba, minidlna, ntfs-3g, exfat-fuse, psmisc, procps, passwd, init-system-helpers")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_INSTALL_FULL_LIBDIR}/usbmgrd)
# Every file under /etc is a conffile: the factory settings and the init
# script are the administrator's to change.
set(usbmgr_conffiles "${CMAKE_INSTALL_FULL_SYSCONFDIR}/usbmgrd/usbmgr.conf\n${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d/usbmgrd\n")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/packaging/debian/conffiles "${usbmgr_conffiles}")
foreach(script postinst prerm postrm)
  file(COPY ${PROJECT_SOURCE_DIR}/packaging/debian/${script} DESTINATION ${CMAKE_CURRENT_BINARY_DIR}/packaging/debian)
endforeach()
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_CURRENT_BINARY_DIR}/packaging/debian/conffiles
  ${CMAKE_CURRENT_BINARY_DIR}/packaging/debian/postinst
  ${CMAKE_CURRENT_BINARY_DIR}/packaging/debian/prerm
  ${CMAKE_CURRENT_BINARY_DIR}/packaging/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)
include(CPack)
