# Where everything goes on a system, in components: "runtime"; "dev" with what modules and clients are
# built with; "python" with the Python module; and "dpdk", where there is DPDK, so that nothing else
# depends on it.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME runtime)

set(programs kes_engine lyrctl capwap_gen)
install(TARGETS ${programs} RUNTIME)
install(TARGETS kes_host mund_ser_lyrhost lyrclient LIBRARY NAMELINK_COMPONENT dev)
# A module is loaded by its path, and has no version.
install(TARGETS lyr_host LIBRARY DESTINATION ${LYR_MODULE_DIR})

install(DIRECTORY src/engine/include/kes src/engine/include/mund src/client/include/lyr
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/lyr_host COMPONENT dev)
function(install_pkg_config library description requires)
  configure_file(packaging/library.pc.in ${library}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
endfunction()
install_pkg_config(kes_host "the engine's interface, for modules" "")
install_pkg_config(mund_ser_lyrhost "the service of the host module's operations" "kes_host")
install_pkg_config(lyrclient "the client's side of an engine's control socket" "")

# As distributions have their pages: packed, with no time in it.
function(install_packed file name destination)
  find_program(GZIP gzip REQUIRED)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${file})
  execute_process(COMMAND ${GZIP} -9nc ${PROJECT_SOURCE_DIR}/${file}
    OUTPUT_FILE ${CMAKE_CURRENT_BINARY_DIR}/${name} COMMAND_ERROR_IS_FATAL ANY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name} DESTINATION ${destination} ${ARGN})
endfunction()
foreach(program ${programs})
  install_packed(docs/${program}.1 ${program}.1.gz ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES completion/${program}.bash RENAME ${program}
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endforeach()
set(doc ${CMAKE_INSTALL_DATADIR}/doc)
install_packed(packaging/changelog changelog.gz ${doc}/lyr-host)
install(FILES packaging/copyright DESTINATION ${doc}/lyr-host)
install_packed(packaging/changelog changelog.gz ${doc}/lyr-host-dev COMPONENT dev)
install(FILES packaging/copyright DESTINATION ${doc}/lyr-host-dev COMPONENT dev)
install(FILES README.md docs/operating.md docs/vocabulary.md docs/interfaces.md docs/protocol.md
  DESTINATION ${doc}/lyr-host)
install(DIRECTORY examples/ DESTINATION ${doc}/lyr-host/examples)

# Modules of the distribution's interpreter lie below the prefix, not in its library directory.
install(DIRECTORY python/lyr_host DESTINATION lib/python3/dist-packages COMPONENT python
  PATTERN __pycache__ EXCLUDE)
set(CPACK_COMPONENTS_ALL runtime dev python)
if(TARGET kes_dpdk)
  install(TARGETS kes_dpdk RUNTIME COMPONENT dpdk)
  install_packed(docs/kes_dpdk.1 kes_dpdk.1.gz ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT dpdk)
  install(FILES docs/deployment.md DESTINATION ${doc}/lyr-host-dpdk COMPONENT dpdk)
  list(APPEND CPACK_COMPONENTS_ALL dpdk)
endif()
foreach(component python dpdk)
  set(package lyr-host-${component})
  if(component STREQUAL python)
    set(package python3-lyr-host)
  endif()
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
  if(component IN_LIST CPACK_COMPONENTS_ALL)
    install_packed(packaging/changelog changelog.gz ${doc}/${package} COMPONENT ${component})
    install(FILES packaging/copyright DESTINATION ${doc}/${package} COMPONENT ${component})
  endif()
endforeach()

configure_file(packaging/lyr-host.service lyr-host.service @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lyr-host.service DESTINATION lib/systemd/system)
install(FILES packaging/sysusers.conf RENAME lyr-host.conf DESTINATION lib/sysusers.d)
install(FILES packaging/lyr-host.conf DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/lyr-host)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME lyr-host)
set(CPACK_PACKAGE_CONTACT "liblyr_host maintainers <maintainers@users.noreply.c-seed-4812de2a.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "engine with a plug-in for the host path of CAPWAP controllers
Picks WAPI frames, CAPWAP control packets, DTLS handshakes and keepalives
out of the host path of a WLAN access controller and hands them to the
service instances that own them. With the module come an engine that
replays captures or takes live traffic, its service, lyrctl to operate it,
and a generator of captures. On amd64 it needs a processor of x86-64-v2.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME lyr-host)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers | adduser")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  "${PROJECT_SOURCE_DIR}/packaging/postinst;${PROJECT_SOURCE_DIR}/packaging/prerm;${PROJECT_SOURCE_DIR}/packaging/postrm;${PROJECT_SOURCE_DIR}/packaging/conffiles;${PROJECT_SOURCE_DIR}/packaging/triggers")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "headers of the engine that lyr-host runs, and of its clients
What a module for the engine, or a client of its control socket, is built
with: headers, links of the libraries, pkg-config files.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME lyr-host-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "lyr-host (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_PYTHON_DESCRIPTION
  "Python module for engines that run lyr-host
The requests of an engine's control socket as functions, the entries of its
tables as an iteration.")
set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3 (>= 3.9)")
set(CPACK_COMPONENT_DPDK_DESCRIPTION
  "engine on DPDK's ports for lyr-host
Runs the plug-in of lyr-host on network cards, taps, memory interfaces and
whatever else DPDK has a driver for, with service instances that are
processes of their own behind such ports.")
set(CPACK_DEBIAN_DPDK_PACKAGE_DEPENDS "lyr-host (= ${PROJECT_VERSION})")
include(CPack)
