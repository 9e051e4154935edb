# Installation: libraries, headers, CMake package, pkg-config files, programs. The components are the
# packages that distributions make of them: runtime, development, tools.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/motor_driver)

install(TARGETS motor_driver motor_driver_wheels EXPORT motor_driver
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/motor_driver COMPONENT development)
install(EXPORT motor_driver NAMESPACE motor_driver:: DESTINATION ${package_dir}
  FILE motor_driver-targets.cmake COMPONENT development)

# No dependency is looked for: everything else is linked privately into the shared libraries.
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/motor_driver-config.cmake.in
  ${PROJECT_BINARY_DIR}/motor_driver-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/motor_driver-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/motor_driver-config.cmake
  ${PROJECT_BINARY_DIR}/motor_driver-config-version.cmake
  DESTINATION ${package_dir} COMPONENT development)

# Relative to the file itself, so that a prefix may be moved or staged.
file(RELATIVE_PATH pc_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" pc_prefix "${pc_prefix}")
function(install_pkg_config_file library description requires)
  configure_file(${CMAKE_CURRENT_FUNCTION_LIST_DIR}/library.pc.in
    ${PROJECT_BINARY_DIR}/${library}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${library}.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
install_pkg_config_file(motor_driver ${PROJECT_DESCRIPTION} "")
install_pkg_config_file(motor_driver_wheels
  "Wheels of a vehicle over CANopen: brought up, commanded, watched, stopped"
  "motor_driver = ${PROJECT_VERSION}")

# Texts of the codes of a drive, and vehicles to begin with; units that run a
# host and a recorder, to be edited.
install(FILES
  ${PROJECT_SOURCE_DIR}/packaging/kinco.yaml
  ${PROJECT_SOURCE_DIR}/packaging/systemd/motor-host@.service
  ${PROJECT_SOURCE_DIR}/packaging/systemd/motor-record@.service
  DESTINATION ${CMAKE_INSTALL_DATADIR}/motor_driver COMPONENT tools)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/packaging/vehicles ${PROJECT_SOURCE_DIR}/packaging/eds
  DESTINATION ${CMAKE_INSTALL_DATADIR}/motor_driver COMPONENT tools)

# The documents for hosts and the examples that they name, as they lie here, so that links lead
# somewhere.
if(MOTOR_DRIVER_DEBIAN)
  set(documents_dir ${CMAKE_INSTALL_DATADIR}/doc/motor-driver-tools)
else()
  set(documents_dir ${CMAKE_INSTALL_DOCDIR})
endif()
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${documents_dir} COMPONENT tools)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs ${PROJECT_SOURCE_DIR}/examples
  DESTINATION ${documents_dir} COMPONENT tools
  FILES_MATCHING PATTERN *.md PATTERN *.svg PATTERN *.png PATTERN *.cpp PATTERN *.h
  PATTERN adding_a_make.md EXCLUDE PATTERN reference EXCLUDE)

if(MOTOR_DRIVER_TOOLS)
  install(TARGETS motor-drive-sim DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  # The launcher finds what it calls beside itself, as in the sources.
  set(launcher_dir ${CMAKE_INSTALL_LIBEXECDIR}/motor_driver)
  set(launcher_sources ${PROJECT_SOURCE_DIR}/tools)
  install(PROGRAMS
    ${launcher_sources}/with-can ${launcher_sources}/arm64-sysroot
    ${launcher_sources}/install-dependencies
    DESTINATION ${launcher_dir} COMPONENT tools)
  install(PROGRAMS
    ${launcher_sources}/guest/image ${launcher_sources}/guest/init ${launcher_sources}/guest/run
    DESTINATION ${launcher_dir}/guest COMPONENT tools)
  install(FILES
    ${launcher_sources}/guest/initramfs-init ${launcher_sources}/guest/shared.sh
    ${launcher_sources}/guest/kernels.py ${launcher_sources}/guest/streams.py
    DESTINATION ${launcher_dir}/guest COMPONENT tools)
  file(RELATIVE_PATH launcher /${CMAKE_INSTALL_BINDIR} /${launcher_dir}/with-can)
  file(CREATE_LINK ${launcher} ${PROJECT_BINARY_DIR}/with-can SYMBOLIC)
  install(FILES ${PROJECT_BINARY_DIR}/with-can
    DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  install(FILES
    ${PROJECT_SOURCE_DIR}/packaging/man/motor-drive-sim.1
    ${PROJECT_SOURCE_DIR}/packaging/man/with-can.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()
