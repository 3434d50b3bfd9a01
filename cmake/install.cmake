# Install rules: the daemon, the client, the mount, the localfs plug-in in the directory
# the daemon reads, its example configuration, the systemd unit, the man
# pages, the bash completion, the Wireshark dissector and the cluster resource
# agent. DESTDIR and the prefix are honoured everywhere; the plug-in directory,
# /etc and the agent's directory are fixed paths because the daemon, the unit
# and the cluster manager look there.
include(GNUInstallDirs)

set(KESTRIX_PLUGIN_DIR /opt/Kestrix/lib)
set(KESTRIX_CONF_DIR /etc/kestrix)

install(TARGETS kestrixd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS kestrix-cli RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS kestrix-mount RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
if(TARGET kxbench)
  install(TARGETS kxbench RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(TARGETS localfs LIBRARY DESTINATION ${KESTRIX_PLUGIN_DIR})

install(FILES plugins/localfs/localfs.conf DESTINATION ${KESTRIX_CONF_DIR})
install(FILES contrib/debian/default DESTINATION /etc/default RENAME kestrixd)

# The unit names the daemon by its installed path, which is known only at
# install time (cpack installs with its own prefix).
install(CODE "
  set(KESTRIX_SBIN \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
  configure_file(\"${CMAKE_SOURCE_DIR}/contrib/systemd/kestrixd.service.in\"
                 \"${CMAKE_BINARY_DIR}/kestrixd.service\" @ONLY)")
install(FILES ${CMAKE_BINARY_DIR}/kestrixd.service DESTINATION lib/systemd/system)

install(FILES man/kestrixd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES man/kestrix-mount.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES man/kestrix-cli.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES contrib/bash-completion/kestrix-cli contrib/bash-completion/kestrix-mount
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES contrib/wireshark/kestrix.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrixd/wireshark)
install(FILES contrib/grafana/kestrixd.json DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrixd/grafana)
# The OCF resource agent, where the cluster manager finds ocf:kestrix:kestrixd.
install(PROGRAMS contrib/ocf/kestrixd DESTINATION /usr/lib/ocf/resource.d/kestrix)
install(FILES contrib/pacemaker/kestrixd.crm DESTINATION ${CMAKE_INSTALL_DATADIR}/kestrixd/pacemaker)
