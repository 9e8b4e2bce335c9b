# What an installation consists of. CMAKE_INSTALL_SYSCONFDIR has to be /etc for the daemon to find
# its configuration.
include(GNUInstallDirs)

install(TARGETS vesperd DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS espasend vespercheck vesperstat DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES conf/quillet.conf DESTINATION ${CMAKE_INSTALL_SYSCONFDIR})
install(PROGRAMS share/mkcall.sh DESTINATION ${CMAKE_INSTALL_DATADIR}/quillet)
install(FILES share/asterisk/vesperd.conf DESTINATION ${CMAKE_INSTALL_DATADIR}/quillet/asterisk)
install(FILES share/prometheus/vesperd.rules.yml
    DESTINATION ${CMAKE_INSTALL_DATADIR}/vesperd/prometheus)
install(FILES share/ha/active-only.conf share/ha/keepalived.conf share/ha/restart.conf
    DESTINATION ${CMAKE_INSTALL_DATADIR}/vesperd/ha)
install(PROGRAMS share/ha/vesperd-health share/ha/vesperd-notify
    DESTINATION ${CMAKE_INSTALL_DATADIR}/vesperd/ha)
install(FILES man/vesperd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES man/quillet.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES man/espasend.1 man/vespercheck.1 man/vesperstat.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES completion/vesperd completion/espasend completion/vespercheck
    completion/vesperstat
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES README.md docs/architecture.md docs/asterisk.md docs/espa.md docs/high-availability.md
    docs/instances.md docs/line-trouble.md docs/monitoring.md docs/nobody-answers.md
    docs/performance.md docs/scaling.svg docs/security.md
    DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY examples DESTINATION ${CMAKE_INSTALL_DOCDIR})
