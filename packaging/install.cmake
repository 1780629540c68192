# What an installation lays down, in two components: "daemon" and "tools". A program takes part when this build has
# it, with its manual page; system programs (section 8) go to sbin.

set(LUMO_LIBEXECDIR lib/lumo)
set(LUMO_UNITDIR lib/systemd/system)

function(install_program component name)
  if(NOT TARGET ${name})
    return()
  endif()
  file(GLOB page CONFIGURE_DEPENDS man/${name}.[0-9])
  if(NOT page)
    message(FATAL_ERROR "${name} has no manual page in man/")
  endif()
  string(REGEX MATCH "[0-9]$" section ${page})
  set(bindir ${CMAKE_INSTALL_BINDIR})
  if(section EQUAL 8)
    set(bindir ${CMAKE_INSTALL_SBINDIR})
  endif()
  install(TARGETS ${name} DESTINATION ${bindir} COMPONENT ${component})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section} COMPONENT ${component})
  install(FILES packaging/completion.bash RENAME ${name} COMPONENT ${component}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endfunction()

# A unit names installed paths, so it is made when it is installed and follows `cmake --install --prefix`.
function(install_unit component program unit)
  if(TARGET ${program})
    install(CODE "configure_installed(etc/${unit}.in ${LUMO_UNITDIR})" COMPONENT ${component})
  endif()
endfunction()

configure_file(packaging/configure-installed.cmake.in configure-installed.cmake @ONLY)
foreach(component daemon tools)
  install(SCRIPT ${CMAKE_BINARY_DIR}/configure-installed.cmake COMPONENT ${component})
endforeach()

install_program(daemon lumo)
install_program(daemon lumo-ring)
install_program(daemon lumo-conf)
install_unit(daemon lumo lumo.service)
install(FILES man/lum.conf.5 DESTINATION ${CMAKE_INSTALL_MANDIR}/man5 COMPONENT daemon)
install(FILES README.md etc/lum.conf DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT daemon)
install(CODE "configure_sample(etc/lum.conf)" COMPONENT daemon)
install(PROGRAMS packaging/clear-playlists DESTINATION ${LUMO_LIBEXECDIR} COMPONENT daemon)
foreach(kind sysusers tmpfiles)
  install(FILES packaging/lumo.${kind} RENAME lumo.conf DESTINATION lib/${kind}.d COMPONENT daemon)
endforeach()

install_program(tools lumo-feed)
install_unit(tools lumo-feed lumo-feed@.service)
if(TARGET lumo-feed)
  install(CODE "install_kept(${CMAKE_SOURCE_DIR}/etc/feeds/test.conf /lumo/feeds)" COMPONENT tools)
endif()
install_program(tools lumo-web)
install_unit(tools lumo-web lumo-web.service)
if(TARGET lumo-web)
  install(FILES etc/nginx-lumo.conf DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tools)
  install(DIRECTORY tools/web/www DESTINATION ${CMAKE_INSTALL_DATADIR}/lumo COMPONENT tools)
  # The page's player, where scripts/install-deps.sh has put it.
  install(DIRECTORY build/share/lumo/www DESTINATION ${CMAKE_INSTALL_DATADIR}/lumo COMPONENT tools
          OPTIONAL FILES_MATCHING PATTERN "hls.*")
endif()
install_program(tools lumo-top)
