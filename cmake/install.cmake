# Installation: libraries, headers, tools, man pages, documentation, a
# pkg-config file and a CMake package (find_package(udsoverzelko) gives
# udsoverzelko::udsoverzelko); the services' files and the Debian packages
# (make package) are in packages.cmake.
#
# Components: "runtime" (shared libraries), "dev" (headers, the unversioned
# library link, pkg-config and CMake files), "tools" (uozctl, uoz-pki, the
# documentation and examples), "agent" and "ecusim" (each service with its
# unit and settings).
include(CMakePackageConfigHelpers)

install(TARGETS udsoverzelko kt5bus EXPORT udsoverzelkoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(EXPORT udsoverzelkoTargets NAMESPACE udsoverzelko::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/udsoverzelko COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/udsoverzelkoConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelkoConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/udsoverzelko)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/udsoverzelkoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelkoConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelkoConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/udsoverzelko COMPONENT dev)
# The .pc file finds its prefix from where it lies, so the tree can be moved.
file(RELATIVE_PATH UOZ_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${PROJECT_SOURCE_DIR}/cmake/udsoverzelko.pc.in ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelko.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelko.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
install(FILES ${PROJECT_SOURCE_DIR}/examples/ecus.json ${PROJECT_SOURCE_DIR}/examples/vehicle.json
  ${PROJECT_SOURCE_DIR}/examples/remote-command.json ${PROJECT_SOURCE_DIR}/examples/agent-settings.json
  ${PROJECT_SOURCE_DIR}/examples/minimal.c
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT tools)
file(GLOB UOZ_DOCS ${PROJECT_SOURCE_DIR}/docs/*.md)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${UOZ_DOCS}
  DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT tools)

# Installed tools find the project's libraries beside them, from any prefix.
file(RELATIVE_PATH UOZ_BIN_TO_LIB "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
set(UOZ_TOOLS uozctl uoz-pki uoz-agent uoz-ecusim)
foreach(tool ${UOZ_TOOLS})
  if(TARGET ${tool})
    set_target_properties(${tool} PROPERTIES INSTALL_RPATH "$ORIGIN/${UOZ_BIN_TO_LIB}")
  endif()
endforeach()

# Man pages made from the --help of each tool and of each of its commands
# (scripts/man-page.sh). Not in sanitizer builds: running a tool there at
# build time would need the sanitizer's runtime settings.
if(NOT UOZ_SANITIZE)
  set(UOZ_MAN_PAGES)
  set(UOZ_MAN_SUMMARY_uozctl "UDS diagnostics from the shell through libudsoverzelko")
  set(UOZ_MAN_SUMMARY_uoz-pki "make the certificates and broker configuration of a bus")
  set(UOZ_MAN_SUMMARY_uoz-agent "reference diagnostic agent and policy agent")
  set(UOZ_MAN_SUMMARY_uoz-ecusim "simulated ECUs for the diagnostic agent")
  set(UOZ_MAN_COMPONENT_uoz-agent agent)
  set(UOZ_MAN_COMPONENT_uoz-ecusim ecusim)
  foreach(tool ${UOZ_TOOLS})
    if(TARGET ${tool})
      set(page ${CMAKE_CURRENT_BINARY_DIR}/man/${tool}.1.gz)
      add_custom_command(OUTPUT ${page}
        COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
        COMMAND bash -c "\"$0\" \"$1\" \"$2\" \"$3\" > \"$4\""
          ${PROJECT_SOURCE_DIR}/scripts/man-page.sh $<TARGET_FILE:${tool}> ${PROJECT_VERSION}
          ${UOZ_MAN_SUMMARY_${tool}} ${CMAKE_CURRENT_BINARY_DIR}/man/${tool}.1
        COMMAND gzip -9nf ${CMAKE_CURRENT_BINARY_DIR}/man/${tool}.1
        DEPENDS ${tool} ${PROJECT_SOURCE_DIR}/scripts/man-page.sh
        VERBATIM
        COMMENT "Man page of ${tool}")
      list(APPEND UOZ_MAN_PAGES ${page})
      if(NOT UOZ_MAN_COMPONENT_${tool})
        set(UOZ_MAN_COMPONENT_${tool} tools)
      endif()
      install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${UOZ_MAN_COMPONENT_${tool}})
    endif()
  endforeach()
  add_custom_target(man_pages ALL DEPENDS ${UOZ_MAN_PAGES})
endif()

include(${CMAKE_CURRENT_LIST_DIR}/packages.cmake)
