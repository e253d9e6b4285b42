# Installation: libraries, headers, tools, a pkg-config file and a CMake
# package (find_package(udsoverzelko) gives udsoverzelko::udsoverzelko).
include(CMakePackageConfigHelpers)

install(TARGETS udsoverzelko kt5bus EXPORT udsoverzelkoTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT udsoverzelkoTargets NAMESPACE udsoverzelko::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/udsoverzelko)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/udsoverzelkoConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelkoConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/udsoverzelko)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/udsoverzelkoConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelkoConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelkoConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/udsoverzelko)
# The .pc file finds its prefix from where it lies, so the tree can be moved.
file(RELATIVE_PATH UOZ_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(${PROJECT_SOURCE_DIR}/cmake/udsoverzelko.pc.in ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelko.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/udsoverzelko.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
install(FILES ${PROJECT_SOURCE_DIR}/examples/ecus.json ${PROJECT_SOURCE_DIR}/examples/vehicle.json
  ${PROJECT_SOURCE_DIR}/examples/remote-command.json ${PROJECT_SOURCE_DIR}/examples/minimal.c
  DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

set(CPACK_PACKAGE_NAME libudsoverzelko)
set(CPACK_PACKAGE_CONTACT "libudsoverzelko developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "UDS diagnostics over an authenticated message bus")
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libjson-c5, libmosquitto1, libssl3")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "mosquitto")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
include(CPack)
