# `cpack -G DEB` builds mirel_<version>_<arch>.deb. Its dependencies are the
# Debian packages of the libraries the programs link, found by dpkg-shlibdeps,
# so that `apt install ./mirel_*.deb` pulls in what a fresh system lacks.
set(CPACK_PACKAGE_NAME mirel)
set(CPACK_PACKAGE_VENDOR "Mirel")
set(CPACK_PACKAGE_CONTACT "Mirel maintainers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "visual bug board for AI coding agents (MCP server)")
set(CPACK_PACKAGE_DESCRIPTION
  "Mirel files screenshots, notes and their context as captures in a local library.\n
mirel-mcp serves the library to an AI coding agent over the Model Context Protocol;
mirel files captures and keeps the library in sync; mirel-server is a small
self-hosted sync server.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# libsystemd is opened at run time for the change signal, which dpkg-shlibdeps
# cannot see; it is on every Debian system with systemd, but say so.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libsystemd0")
# A Secret Service keeps the session token; without one it is a private file.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "gnome-keyring")
set(CPACK_GENERATOR DEB)
include(CPack)
