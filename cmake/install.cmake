# What `cmake --install` puts where; the Debian package (cmake/package.cmake)
# is made from this same list. DESTDIR is honoured as usual:
#   DESTDIR=/tmp/root cmake --install build
include(GNUInstallDirs)

# Where the gateway's fixed command paths "/bin/smbd" and "/bin/nmbd" land on
# a merged-/usr system (/bin is /usr/bin). Not under the prefix: the daemon
# names these paths literally.
set(USBMGR_GATEWAY_BINDIR /usr/bin CACHE PATH "Folder that /bin resolves to (host Samba adapters)")
find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_get_variable(usbmgr_unitdir_found systemd systemdsystemunitdir)
endif()
if(NOT usbmgr_unitdir_found)
  set(usbmgr_unitdir_found /lib/systemd/system)
endif()
set(USBMGR_SYSTEMD_UNITDIR ${usbmgr_unitdir_found} CACHE PATH "systemd's folder of system units")

set(USBMGR_SBIN ${CMAKE_INSTALL_FULL_SBINDIR})
set(USBMGR_LIBEXEC ${CMAKE_INSTALL_FULL_LIBEXECDIR}/usbmgrd)
set(USBMGR_DOCDIR ${CMAKE_INSTALL_FULL_DOCDIR})
set(USBMGR_FACTORY_SETTINGS ${CMAKE_INSTALL_FULL_SYSCONFDIR}/usbmgrd/usbmgr.conf)
file(STRINGS ${PROJECT_SOURCE_DIR}/etc/usbmgr.conf usbmgr_mount_root REGEX "^USBMGR\\.MOUNT_DISK_PATH=")
string(REGEX REPLACE "^[^=]*=" "" USBMGR_MOUNT_ROOT "${usbmgr_mount_root}")

# Programs. The host's platform libraries are private to these programs
# (unversioned gateway names), so they live in a folder of their own that
# the programs find through their run path.
set(usbmgr_private_libdir ${CMAKE_INSTALL_LIBDIR}/usbmgrd)
set(usbmgr_programs usbmgrd usbmgrctl)
if(TARGET dusbd)
  list(APPEND usbmgr_programs dusbd)
endif()
if(USBMGR_HOST_PLATFORM)
  set_target_properties(${usbmgr_programs} PROPERTIES INSTALL_RPATH "$ORIGIN/../${usbmgr_private_libdir}")
endif()
install(TARGETS usbmgrd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(TARGET dusbd)
  install(TARGETS dusbd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
endif()
install(TARGETS usbmgrctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Settings: the factory file; usbmgrd-setup copies it to /var/config at the
# first start and never over an existing file.
install(FILES etc/usbmgr.conf DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/usbmgrd)
install(PROGRAMS etc/usbmgrd-setup DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/usbmgrd)

# The system bus policy of the host's bus library (D-Bus): who may own and
# call org.orbiil.*. A gateway's bus is the platform's.
set(usbmgr_bus_policy etc/dbus-1/system.d/org.orbiil.conf)
if(USBMGR_HOST_PLATFORM AND EXISTS ${PROJECT_SOURCE_DIR}/${usbmgr_bus_policy})
  install(FILES ${usbmgr_bus_policy} DESTINATION ${CMAKE_INSTALL_DATADIR}/dbus-1/system.d)
endif()

# Service files: systemd units for a Linux box, an init script for a
# gateway's BusyBox init.
foreach(unit usbmgrd.service dusbd.service)
  configure_file(etc/systemd/${unit}.in ${CMAKE_CURRENT_BINARY_DIR}/etc/systemd/${unit} @ONLY)
endforeach()
# Named otherwise in the build folder, where the sandbox looks for the
# daemon by its name.
configure_file(etc/init.d/usbmgrd.in ${CMAKE_CURRENT_BINARY_DIR}/etc/init.d/usbmgrd-init @ONLY
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
install(PROGRAMS ${CMAKE_CURRENT_BINARY_DIR}/etc/init.d/usbmgrd-init
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d RENAME usbmgrd)
if(USBMGR_HOST_PLATFORM)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/etc/systemd/usbmgrd.service DESTINATION ${USBMGR_SYSTEMD_UNITDIR})
  if(TARGET dusbd)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/etc/systemd/dusbd.service DESTINATION ${USBMGR_SYSTEMD_UNITDIR})
  endif()
endif()

# The host platform: the libraries, orbcm_util, and the Samba adapters that
# carry the gateway's Samba command lines to Debian's Samba. A gateway
# brings its own and installs none of these.
if(USBMGR_HOST_PLATFORM)
  install(TARGETS orbiil dusb orbsm LIBRARY DESTINATION ${usbmgr_private_libdir})
  install(TARGETS orbcm_util RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
  install(PROGRAMS platform/host/samba/smbd platform/host/samba/nmbd DESTINATION ${USBMGR_GATEWAY_BINDIR})
  # Bound over /usr/bin/pdbedit inside usbmgrd.service's mount namespace only.
  install(PROGRAMS platform/host/samba/pdbedit DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/usbmgrd)
endif()

install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY doc/ DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING PATTERN "*.md")
