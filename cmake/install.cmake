# Installation and the Debian package.
#
#   cmake --install BUILD --prefix /usr      the files below, under DESTDIR when it is set
#   cpack -G DEB --config BUILD/CPackConfig.cmake
#                                            ruvo_VERSION_ARCH.deb with the same files for /usr
#
# Installed (prefix /usr):
#   /usr/sbin/ruvo                      the daemon
#   /usr/bin/ruvo-report, ruvo-sim      the usage report and the simulator
#   /usr/share/man/man8/ruvo.8, man1/ruvo-report.1, man1/ruvo-sim.1
#   /etc/init.d/ruvo                    the init script (a conffile of the package)
#   /usr/lib/systemd/system/ruvo.service
#
# Nothing here runs a program of this build, at configure, build or install time, so that the
# cross builds for the routers include this file as they are.
include(GNUInstallDirs)

install(TARGETS ruvo RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS ruvo-report ruvo-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${PROJECT_SOURCE_DIR}/man/ruvo.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${PROJECT_SOURCE_DIR}/man/ruvo-report.1 ${PROJECT_SOURCE_DIR}/man/ruvo-sim.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# The init script and the systemd unit name the daemon's installed path, and the init script
# goes to the system configuration directory of the prefix (/etc for /usr, /usr/local/etc for
# /usr/local). Both depend on the prefix of the install, which "cmake --install --prefix" and
# cpack choose after configuration; so both are worked out when the install runs, with the
# rules GNUInstallDirs applies at configure time.
install(CODE "
set(RUVO_DIST_SOURCE_DIR \"${PROJECT_SOURCE_DIR}/dist\")
set(RUVO_DIST_BINARY_DIR \"${CMAKE_BINARY_DIR}/dist\")
set(RUVO_SYSCONFDIR \"${CMAKE_INSTALL_SYSCONFDIR}\")
set(RUVO_SBINDIR \"${CMAKE_INSTALL_SBINDIR}\")
")
install(CODE [==[
# The absolute form of a GNUInstallDirs directory for the prefix of this install: an absolute
# directory stands as it is; the configuration directory of the prefixes / and /usr is /etc,
# that of /opt/NAME is /etc/opt/NAME; program directories of the prefix / lie under /usr.
function(ruvo_full_dir out kind dir)
  set(prefix "${CMAKE_INSTALL_PREFIX}")
  if(IS_ABSOLUTE "${dir}")
    set(full "${dir}")
  elseif(prefix STREQUAL "/")
    if(kind STREQUAL "SYSCONFDIR" OR dir MATCHES "^usr/")
      set(full "/${dir}")
    else()
      set(full "/usr/${dir}")
    endif()
  elseif(prefix MATCHES "^/usr/?$" AND kind STREQUAL "SYSCONFDIR")
    set(full "/${dir}")
  elseif(prefix MATCHES "^/opt/" AND NOT prefix MATCHES "^/opt/homebrew/" AND kind STREQUAL "SYSCONFDIR")
    set(full "/${dir}${prefix}")
  else()
    string(REGEX REPLACE "/+$" "" prefix "${prefix}")
    set(full "${prefix}/${dir}")
  endif()
  set(${out} "${full}" PARENT_SCOPE)
endfunction()

ruvo_full_dir(ruvo_sysconfdir SYSCONFDIR "${RUVO_SYSCONFDIR}")
ruvo_full_dir(ruvo_sbindir SBINDIR "${RUVO_SBINDIR}")
# A directory of its own for every destination, so that installs into different DESTDIRs
# (tests, cpack) can run at the same time; removed again at the end.
string(MD5 ruvo_install_key "$ENV{DESTDIR}|${CMAKE_INSTALL_PREFIX}")
set(ruvo_generated "${RUVO_DIST_BINARY_DIR}/install-${ruvo_install_key}")

# The unit's ExecStart is the installed daemon.
set(RUVO_DAEMON "${ruvo_sbindir}/ruvo")
configure_file("${RUVO_DIST_SOURCE_DIR}/ruvo.service.in" "${ruvo_generated}/ruvo.service" @ONLY)

# The init script names /usr/sbin/ruvo in its DAEMON line, so that it also serves as it is;
# another prefix puts its own path there.
file(READ "${RUVO_DIST_SOURCE_DIR}/ruvo.init" ruvo_init)
string(FIND "${ruvo_init}" "\nDAEMON=/usr/sbin/ruvo\n" ruvo_daemon_line)
if(ruvo_daemon_line EQUAL -1)
  message(FATAL_ERROR "${RUVO_DIST_SOURCE_DIR}/ruvo.init has no line DAEMON=/usr/sbin/ruvo")
endif()
string(REPLACE "\nDAEMON=/usr/sbin/ruvo\n" "\nDAEMON=${RUVO_DAEMON}\n" ruvo_init "${ruvo_init}")
file(WRITE "${ruvo_generated}/ruvo" "${ruvo_init}")

list(APPEND CMAKE_ABSOLUTE_DESTINATION_FILES "${ruvo_sysconfdir}/init.d/ruvo")
file(INSTALL DESTINATION "${ruvo_sysconfdir}/init.d" TYPE PROGRAM FILES "${ruvo_generated}/ruvo")
file(INSTALL DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system" TYPE FILE
     FILES "${ruvo_generated}/ruvo.service")
file(REMOVE_RECURSE "${ruvo_generated}")
]==])

# The Debian package: "cpack -G DEB" (or plain "cpack") in the build directory.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ruvo)
set(CPACK_PACKAGE_VERSION 1.0.0)
set(CPACK_PACKAGE_VENDOR "ruvo developers")
set(CPACK_PACKAGE_CONTACT "ruvo developers <ruvo@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Usage Monitor for multi-WAN routers")
# The package installs for /usr, whatever prefix the build was configured with. The init
# script lies outside that prefix (/etc/init.d), which needs the DESTDIR way of staging.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_NAME ruvo)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${CPACK_PACKAGE_CONTACT}")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The synopsis line of the control file is CPACK_PACKAGE_DESCRIPTION_SUMMARY; this is the
# extended description below it.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "ruvo samples the kernel's per-link byte counters every 30 seconds and
keeps hourly, daily, calendar-month and billing-cycle histories of every WAN
link and of every SIM card of dual-SIM cellular links. It enforces per-link data
allowances with warning e-mails and link suspension, backs its histories up,
and keeps per-client usage by IP and MAC address on the LAN side.
.
The package also holds ruvo-report, which prints the recorded usage, and
ruvo-sim, which runs the daemon's code on a simulated router.")
# Written out rather than found by dpkg-shlibdeps, which cross builds cannot run: glibc 2.34
# for 64-bit time on 32-bit CPUs, the C++ runtime of GCC 11 (GLIBCXX_3.4.29) and libgcc_s.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 11)")
# The Debian architecture of the compiler's target, so that a cross build's package is
# marked for the router's CPU; unknown targets are left to cpack, which asks dpkg.
foreach(ruvo_pair x86_64-linux-gnu:amd64 i386-linux-gnu:i386 i686-linux-gnu:i386
             aarch64-linux-gnu:arm64 arm-linux-gnueabihf:armhf arm-linux-gnueabi:armel
             mips-linux-gnu:mips mipsel-linux-gnu:mipsel)
  string(REPLACE ":" ";" ruvo_pair "${ruvo_pair}")
  list(GET ruvo_pair 0 ruvo_triplet)
  if(ruvo_triplet STREQUAL "${CMAKE_LIBRARY_ARCHITECTURE}")
    list(GET ruvo_pair 1 CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
  endif()
endforeach()
# The init script is a configuration file: an administrator's changes survive upgrades.
file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/dist/deb/conffiles CONTENT "/etc/init.d/ruvo\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_BINARY_DIR}/dist/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# "make package_source" packs the sources without build trees and version control.
set(CPACK_SOURCE_IGNORE_FILES "/\\.git/" "/build[^/]*/")
include(CPack)

if(RUVO_TESTS)
  add_subdirectory(${PROJECT_SOURCE_DIR}/tests/install ${CMAKE_BINARY_DIR}/tests/install)
endif()
