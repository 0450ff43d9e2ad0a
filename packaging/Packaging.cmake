# What the packages hold and where it goes: .deb and .rpm put everything that is run into one folder, beside which
# the settings lie; the .tar.gz is one folder with everything. packaging/build makes them of what is installed here.
#
# Components: "system" and "folder", one for each layout, and "debian", what only a .deb has.

set(VELMO_MAINTAINER "VelmoManager maintainers <velmomanager@packages.invalid>" CACHE STRING
  "Who answers for the packages: name and address")
set(VELMO_HOME opt/velmomanager)
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set_property(CACHE CMAKE_INSTALL_PREFIX PROPERTY VALUE /)
endif()
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON) # packaging/build has built what is installed; tests are not

set(here ${CMAKE_CURRENT_LIST_DIR})
set(made ${PROJECT_BINARY_DIR}/packaging)
string(TIMESTAMP VELMO_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC) # of SOURCE_DATE_EPOCH, if that is set
foreach(script IN ITEMS deb/postinst deb/prerm deb/postrm deb/changelog rpm/post rpm/preun service facts)
  configure_file(${here}/${script}.in ${made}/${script} @ONLY)
endforeach()

set(programs VelmoManager zt240vm64 zt240obj)
if(TARGET velmoctl)
  list(APPEND programs velmoctl)
endif()
set_target_properties(zt240vm64 PROPERTIES INSTALL_RPATH "$ORIGIN")
file(GLOB manuals CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.[1-8])
set(completions ${PROJECT_SOURCE_DIR}/tools/velmoctl/completion)
file(GLOB guides CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/*.md)
list(REMOVE_ITEM guides ${PROJECT_SOURCE_DIR}/docs/decisions.md) # for those who change the code
set(sample ${PROJECT_SOURCE_DIR}/docs/DXConf.ini.sample)
set(tmpfiles ${here}/tmpfiles.d/velmomanager.conf)
set(metrics ${here}/metrics/velmo-metrics.service ${here}/metrics/velmo-metrics.timer) # not enabled
set(readable OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
set(executable ${readable} OWNER_EXECUTE GROUP_EXECUTE WORLD_EXECUTE)

# The layout of a system.
install(TARGETS ${programs} COMPONENT system
  RUNTIME DESTINATION ${VELMO_HOME}
  LIBRARY DESTINATION ${VELMO_HOME} PERMISSIONS ${readable})
install(FILES ${sample} DESTINATION ${VELMO_HOME} COMPONENT system)
install(PROGRAMS ${made}/service DESTINATION ${VELMO_HOME} RENAME package-service COMPONENT system)
install(PROGRAMS ${here}/ansible/velmo-inventory DESTINATION ${VELMO_HOME} COMPONENT system)
install(FILES ${tmpfiles} DESTINATION usr/lib/tmpfiles.d COMPONENT system)
install(FILES ${metrics} DESTINATION usr/lib/systemd/system COMPONENT system)
install(DIRECTORY ${here}/examples DESTINATION usr/share/doc/velmomanager COMPONENT system)
install(FILES ${guides} DESTINATION usr/share/doc/velmomanager COMPONENT system)
install(FILES ${here}/copyright DESTINATION usr/share/doc/velmomanager COMPONENT system)
install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION usr/share/doc/velmomanager RENAME changelog
  COMPONENT system)
foreach(manual IN LISTS manuals)
  get_filename_component(section ${manual} LAST_EXT)
  string(REPLACE "." "man" section ${section})
  install(FILES ${manual} DESTINATION usr/share/man/${section} COMPONENT system)
endforeach()
install(FILES ${completions}/velmoctl.bash DESTINATION usr/share/bash-completion/completions RENAME velmoctl
  COMPONENT system)
install(FILES ${completions}/_velmoctl DESTINATION usr/share/zsh/vendor-completions COMPONENT system)
install(FILES ${completions}/velmoctl.fish DESTINATION usr/share/fish/vendor_completions.d COMPONENT system)
# Links into the folder, so that the commands are found.
foreach(link IN ITEMS usr/sbin/VelmoManager usr/bin/velmoctl)
  get_filename_component(command ${link} NAME)
  if(command IN_LIST programs)
    set(VELMO_LINK ${link})
    set(VELMO_LINK_TARGET ${VELMO_HOME}/${command})
    string(CONFIGURE [[
      set(root "${CMAKE_INSTALL_PREFIX}/") # which has no trailing slash by now; no component has this name
      set(link "$ENV{DESTDIR}${root}@VELMO_LINK@")
      message(STATUS "Installing: ${link}")
      get_filename_component(parent "${link}" DIRECTORY)
      file(MAKE_DIRECTORY "${parent}")
      file(CREATE_LINK "${root}@VELMO_LINK_TARGET@" "${link}" SYMBOLIC)
    ]] make_link @ONLY)
    install(CODE "${make_link}" COMPONENT system)
  endif()
endforeach()
set(compress [[
  file(GLOB pages "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/usr/share/man/man*/*.[1-8]"
    "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/usr/share/doc/velmomanager/changelo[g]"
    "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/usr/share/doc/velmomanager/changelog.Debia[n]")
  if(pages)
    execute_process(COMMAND gzip -9nf ${pages} RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
      message(FATAL_ERROR "gzip: ${status}")
    endif()
  endif()
]])
install(CODE "${compress}" COMPONENT system)

# What only a .deb has.
install(FILES ${made}/deb/changelog DESTINATION usr/share/doc/velmomanager RENAME changelog.Debian COMPONENT debian)
install(FILES ${here}/deb/overrides DESTINATION usr/share/lintian/overrides RENAME velmomanager COMPONENT debian)
install(CODE "${compress}" COMPONENT debian)

# The layout of one folder.
install(TARGETS ${programs} COMPONENT folder EXCLUDE_FROM_ALL
  RUNTIME DESTINATION .
  LIBRARY DESTINATION . PERMISSIONS ${readable})
install(FILES ${sample} ${here}/copyright DESTINATION . COMPONENT folder EXCLUDE_FROM_ALL)
install(FILES ${guides} ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION doc COMPONENT folder EXCLUDE_FROM_ALL)
install(FILES ${manuals} DESTINATION man COMPONENT folder EXCLUDE_FROM_ALL)
install(FILES ${tmpfiles} DESTINATION tmpfiles.d COMPONENT folder EXCLUDE_FROM_ALL)
install(FILES ${metrics} DESTINATION metrics COMPONENT folder EXCLUDE_FROM_ALL)
install(PROGRAMS ${here}/ansible/velmo-inventory DESTINATION . COMPONENT folder EXCLUDE_FROM_ALL)
install(DIRECTORY ${here}/examples ${completions} DESTINATION . COMPONENT folder EXCLUDE_FROM_ALL)
