# The services' files (systemd units, settings under /etc/uoz, the broker's
# drop-in) and the Debian packages that make package builds:
#
#   libudsoverzelko1     the shared libraries
#   libudsoverzelko-dev  headers, pkg-config and CMake files
#   udsoverzelko-tools   uozctl, uoz-pki, the documentation and examples
#   uoz-agent            the diagnostic agent as a service, its settings in /etc/uoz
#   uoz-ecusim           the ECU simulator as a service, for bench set-ups
#
# and -dbgsym packages with the debug symbols stripped from the others.
# Configure with -DCMAKE_INSTALL_PREFIX=/usr (make package does): the
# libraries then go to the multiarch directory, the settings to /etc/uoz and
# the units to /lib/systemd/system. Under any other prefix these stay inside
# the prefix, so that `cmake --install --prefix DIR` writes nowhere else.
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(UOZ_CONF_DESTINATION /etc/uoz)
  set(UOZ_UNIT_DESTINATION /lib/systemd/system)
else()
  set(UOZ_CONF_DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/uoz)
  set(UOZ_UNIT_DESTINATION lib/systemd/system)
endif()
# The paths the units, the drop-in and the maintainer scripts name.
set(UOZ_CONF_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/uoz)
set(UOZ_BIN_DIR ${CMAKE_INSTALL_FULL_BINDIR})
set(UOZ_DOC_DIR ${CMAKE_INSTALL_FULL_DOCDIR})
set(UOZ_SHARE_DESTINATION ${CMAKE_INSTALL_DATADIR}/uoz-agent)

set(UOZ_PACKAGING ${PROJECT_SOURCE_DIR}/packaging)
set(UOZ_PACKAGING_OUT ${CMAKE_CURRENT_BINARY_DIR}/packaging)

# One service: its unit, its options file and the settings it reads (all
# conffiles of its package), and the maintainer scripts of that package,
# which make the service's user when it has one.
function(uoz_service component package settings user)
  set(UOZ_PACKAGE ${package})
  set(UOZ_UNIT ${package}.service)
  set(UOZ_SERVICE_USER "${user}")
  set(out ${UOZ_PACKAGING_OUT}/${component})
  configure_file(${UOZ_PACKAGING}/${package}.service.in ${out}/${package}.service @ONLY)
  configure_file(${UOZ_PACKAGING}/${package}.env.in ${out}/${package}.env @ONLY)
  install(FILES ${out}/${package}.service DESTINATION ${UOZ_UNIT_DESTINATION} COMPONENT ${component})
  install(FILES ${out}/${package}.env ${settings} DESTINATION ${UOZ_CONF_DESTINATION}
    COMPONENT ${component})
  set(conffiles "${UOZ_CONF_DIR}/${package}.env\n")
  foreach(file ${settings})
    get_filename_component(name ${file} NAME)
    string(APPEND conffiles "${UOZ_CONF_DIR}/${name}\n")
  endforeach()
  file(WRITE ${out}/conffiles "${conffiles}")
  foreach(script postinst prerm postrm)
    configure_file(${UOZ_PACKAGING}/maintainer/${script}.in ${out}/${script} @ONLY
      FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
      WORLD_READ WORLD_EXECUTE)
  endforeach()
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_CONTROL_EXTRA
    "${out}/conffiles;${out}/postinst;${out}/prerm;${out}/postrm" PARENT_SCOPE)
endfunction()

if(TARGET uoz-agent)
  uoz_service(agent uoz-agent
    "${PROJECT_SOURCE_DIR}/examples/agent-settings.json;${PROJECT_SOURCE_DIR}/examples/ecus.json"
    uoz)
  # The system broker's settings for the bus, to be copied into
  # /etc/mosquitto/conf.d once the certificates exist (docs/deploy.md). Not
  # under /usr/share/doc: minimal systems leave that out.
  configure_file(${UOZ_PACKAGING}/mosquitto-uoz.conf.in ${UOZ_PACKAGING_OUT}/mosquitto-uoz.conf
    @ONLY)
  install(FILES ${UOZ_PACKAGING_OUT}/mosquitto-uoz.conf DESTINATION ${UOZ_SHARE_DESTINATION}
    COMPONENT agent)
endif()
if(TARGET uoz-ecusim)
  uoz_service(ecusim uoz-ecusim "${PROJECT_SOURCE_DIR}/examples/vehicle.json" "")
endif()

set(UOZ_PACKAGE_NAMES runtime libudsoverzelko${PROJECT_VERSION_MAJOR} dev libudsoverzelko-dev
  tools udsoverzelko-tools agent uoz-agent ecusim uoz-ecusim)
while(UOZ_PACKAGE_NAMES)
  list(POP_FRONT UOZ_PACKAGE_NAMES component package)
  install(FILES ${UOZ_PACKAGING}/copyright DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package}
    COMPONENT ${component})
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package})
endwhile()

set(CPACK_PACKAGE_NAME libudsoverzelko)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "libudsoverzelko developers <libudsoverzelko@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "UDS diagnostics over an authenticated message bus")
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools agent ecusim)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The tools link the project's own libraries, which lie in another package:
# dpkg-shlibdeps finds them in the build tree, and the dependency on that
# package comes from the component dependencies below.
get_target_property(UOZ_LIBRARY_DIR udsoverzelko BINARY_DIR)
get_target_property(UOZ_BUS_LIBRARY_DIR kt5bus BINARY_DIR)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${UOZ_LIBRARY_DIR} ${UOZ_BUS_LIBRARY_DIR})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libjson-c-dev, libmosquitto-dev, libssl-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "uoz-agent, mosquitto")
set(CPACK_DEBIAN_AGENT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS "mosquitto, udsoverzelko-tools")
set(CPACK_DEBIAN_AGENT_PACKAGE_SUGGESTS "uoz-ecusim")
set(CPACK_DEBIAN_ECUSIM_PACKAGE_SECTION misc)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_AGENT_DEPENDS runtime)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "UDS diagnostics over an authenticated message bus: libraries")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "UDS diagnostics over an authenticated message bus: headers and build files")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "UDS diagnostics over an authenticated message bus: uozctl, uoz-pki and documentation")
set(CPACK_COMPONENT_AGENT_DESCRIPTION
  "UDS diagnostics over an authenticated message bus: the diagnostic agent service")
set(CPACK_COMPONENT_ECUSIM_DESCRIPTION
  "UDS diagnostics over an authenticated message bus: simulated ECUs (bench service)")
include(CPack)

# docs/deploy.md run on the packages that cpack made in this build tree,
# inside a throw-away system booted with systemd: make package turns it on
# and runs it after cpack.
option(UOZ_PACKAGE_TEST "Register the test of the Debian packages (CTest label package)" OFF)
if(UOZ_PACKAGE_TEST)
  enable_testing()
  add_test(NAME deploy COMMAND ${PROJECT_SOURCE_DIR}/tests/package/deploy_test.sh
    ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR})
  set_tests_properties(deploy PROPERTIES LABELS package SKIP_RETURN_CODE 77 TIMEOUT 400)
endif()
