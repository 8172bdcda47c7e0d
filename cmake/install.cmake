# Where `cmake --install` and the Debian package put things: the programs in
# bin/, manual pages, shell completions and the background sync service.
include(GNUInstallDirs)

foreach(program mirel-mcp mirel mirel-server)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
    install(FILES docs/man/${program}.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  endif()
endforeach()

install(FILES packaging/completions/mirel.bash
  DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME mirel)
install(FILES packaging/completions/_mirel DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)

# The user unit names `mirel` by its installed path, which is known only when
# installing: a package installs under /usr whatever the build was configured with.
set(MIREL_SYSTEMD_USER_UNIT_DIR "lib/systemd/user" CACHE STRING
  "Where the systemd user unit goes, relative to the prefix")
install(CODE "
  set(MIREL_BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/packaging/mirel-watch.service.in\"
    \"${CMAKE_BINARY_DIR}/packaging/mirel-watch.service\" @ONLY)
  file(INSTALL \"${CMAKE_BINARY_DIR}/packaging/mirel-watch.service\"
    DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${MIREL_SYSTEMD_USER_UNIT_DIR}\")
")
