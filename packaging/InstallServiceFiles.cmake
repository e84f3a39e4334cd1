# Runs at install time (cmake --install, or CPack's staging install). The unit names the binary by
# absolute path and the prefix is only final now, so the unit is written here rather than when
# the build is configured.
#
# Set by the caller: TIV_UNIT_TEMPLATE, TIV_UNIT_DIR and TIV_BINDIR (either may be relative to the
# prefix), TIV_CERT_FILE, TIV_KEY_FILE, TIV_SERVICE_USER, TIV_SETTINGS_DIR, TIV_STAGING_DIR.

foreach(dir IN ITEMS TIV_UNIT_DIR TIV_BINDIR)
  if(NOT IS_ABSOLUTE "${${dir}}")
    set(${dir} "${CMAKE_INSTALL_PREFIX}/${${dir}}")
  endif()
endforeach()

file(READ "${TIV_UNIT_TEMPLATE}" unit)
string(CONFIGURE "${unit}" unit @ONLY)
# One staging folder per destination, so two installs running at once never share a file.
string(MD5 stage "$ENV{DESTDIR}|${CMAKE_INSTALL_PREFIX}")
set(stage "${TIV_STAGING_DIR}/${stage}")
file(WRITE "${stage}/tiv-rfid-svc.service" "${unit}")
file(INSTALL DESTINATION "${TIV_UNIT_DIR}" TYPE FILE FILES "${stage}/tiv-rfid-svc.service")
