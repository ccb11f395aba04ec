# What cmake --install and the Debian package put where.
include(GNUInstallDirs)
install(TARGETS kov kov-checkconf DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS kovctl DESTINATION ${CMAKE_INSTALL_BINDIR})
install(PROGRAMS tools/fleet/kov-alive tools/fleet/kov-forward DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES packaging/man/kovctl.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES packaging/man/kov.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES packaging/man/kov.8 packaging/man/kov-checkconf.8 packaging/man/kov-alive.8 packaging/man/kov-forward.8
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
# The units name their programs where this installation puts them. kov.service and kov@.service are one text.
install(CODE "set(SBINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_SBINDIR}\")
set(BINDIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_BINDIR}\")
set(DATADIR \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/kov\")
set(UNITS \"${CMAKE_SOURCE_DIR}/packaging/systemd\")
set(MADE \"${CMAKE_BINARY_DIR}/systemd\")
set(CONFIG /etc/kov/kov.conf)
set(OF \"\")
set(RUNDIR kov)
configure_file(\"\${UNITS}/kov.service\" \"\${MADE}/kov.service\" @ONLY)
set(CONFIG /etc/kov/%i.conf)
set(OF \" %i\")
set(RUNDIR kov-%i)
configure_file(\"\${UNITS}/kov.service\" \"\${MADE}/kov@.service\" @ONLY)
foreach(file kov-watch.service kov-watch.timer kov-expire@.service kov-expire@.timer kov-alive@.service
    kov-outbox.service kov-forward.service redis.conf outbox.conf drain.conf)
  configure_file(\"\${UNITS}/\${file}\" \"\${MADE}/\${file}\" @ONLY)
endforeach()
file(INSTALL \"\${MADE}/kov.service\" \"\${MADE}/kov@.service\" \"\${MADE}/kov-watch.service\"
  \"\${MADE}/kov-watch.timer\"
  \"\${MADE}/kov-expire@.service\" \"\${MADE}/kov-expire@.timer\" \"\${MADE}/kov-alive@.service\"
  \"\${MADE}/kov-outbox.service\" \"\${MADE}/kov-forward.service\"
  DESTINATION \"\${CMAKE_INSTALL_PREFIX}/lib/systemd/system\")
file(INSTALL \"\${MADE}/redis.conf\" \"\${MADE}/outbox.conf\" \"\${MADE}/drain.conf\"
  DESTINATION \"\${DATADIR}/systemd\")")
install(FILES packaging/systemd/kov.sysusers DESTINATION lib/sysusers.d RENAME kov.conf)
install(FILES packaging/systemd/kov.tmpfiles DESTINATION lib/tmpfiles.d RENAME kov.conf)
install(FILES packaging/systemd/kov.sysctl DESTINATION lib/sysctl.d RENAME 60-kov.conf)
install(PROGRAMS packaging/redis/load-scripts packaging/systemd/watch packaging/day-picture packaging/to-journal
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kov)
install(FILES packaging/mtail/kov.mtail packaging/mtail/kov.rules.yml
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kov/mtail)
install(FILES packaging/balancer/kov_balancer.lua packaging/balancer/balancer.conf packaging/balancer/files.conf
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kov/balancer)
install(FILES packaging/redis/add_url.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/kov/redis)
install(FILES packaging/outbox/add_url.lua packaging/outbox/redis.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/kov/outbox)
install(FILES packaging/examples/fleet.conf packaging/examples/kov.conf packaging/examples/origins.nginx
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES SECURITY.md CONTRIBUTING.md CHANGELOG.md LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR})
# The examples lie beside it there.
install(CODE "file(READ \"${CMAKE_SOURCE_DIR}/README.md\" text)
string(REPLACE \"packaging/examples/\" \"examples/\" text \"\${text}\")
file(WRITE \"${CMAKE_BINARY_DIR}/README.md\" \"\${text}\")
file(INSTALL \"${CMAKE_BINARY_DIR}/README.md\"
  DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATAROOTDIR}/doc/kov\")")
# A configuration that somebody has edited stays; a prefix of a user's own gets none.
install(CODE "if(CMAKE_INSTALL_PREFIX MATCHES \"^/usr\" AND NOT EXISTS \"\$ENV{DESTDIR}/etc/kov/kov.conf\")
  file(INSTALL \"${CMAKE_SOURCE_DIR}/packaging/examples/kov.conf\" DESTINATION \"/etc/kov\")
endif()")
install(FILES tools/client/kov_client.py DESTINATION ${CMAKE_INSTALL_DATADIR}/kov/client)
install(PROGRAMS tools/client/order.sh DESTINATION ${CMAKE_INSTALL_DATADIR}/kov/client)
# Completion is looked up by a program's name.
foreach(program kov kovctl kov-checkconf)
  install(FILES ${CMAKE_BINARY_DIR}/kov.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
    RENAME ${program})
endforeach()
install(FILES ${CMAKE_BINARY_DIR}/kov.zsh DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions RENAME _kov)
install(FILES packaging/grafana/kov.json DESTINATION ${CMAKE_INSTALL_DATADIR}/kov/grafana)
