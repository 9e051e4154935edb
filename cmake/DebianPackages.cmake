# Three Debian packages by CPack, for the architecture of the compiler. tools/make-packages calls it.

set(soversion ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(runtime_package libmotor-driver${soversion})
set(debian_directory ${PROJECT_SOURCE_DIR}/packaging/debian)
set(generated_directory ${PROJECT_BINARY_DIR}/debian)

if("$ENV{DEBFULLNAME}" STREQUAL "" OR "$ENV{DEBEMAIL}" STREQUAL "")
  set(maintainer "motor_driver maintainers <maintainers@motor-driver.invalid>")
else()
  set(maintainer "$ENV{DEBFULLNAME} <$ENV{DEBEMAIL}>")
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME motor-driver)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${maintainer})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # every package has its own
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_PROJECT_CONFIG_FILE ${generated_directory}/cpack-project.cmake)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/DebianStage.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/DebianRepack.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${debian_architecture})
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_SOURCE motor-driver)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(debian_version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "servo drives of wheeled robots over CAN, shared libraries
Drives the servo drives of a wheeled robot over a CAN bus with CANopen
(CiA 301, CiA 402), through raw SocketCAN: bring-up, wheel speeds, heartbeat
supervision and recovery for drives of several makes.

This package contains the shared libraries: the classes of the drives, and the
layer above them that brings up, commands, watches and stops the wheels of a
vehicle.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${generated_directory}/shlibs ${generated_directory}/symbols ${debian_directory}/triggers)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libmotor-driver-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "servo drives of wheeled robots over CAN, development files
Drives the servo drives of a wheeled robot over a CAN bus with CANopen
(CiA 301, CiA 402), through raw SocketCAN.

This package contains headers, the CMake package and the pkg-config files.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME motor-driver-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
# What with-can, a script, calls: no tool can compute that.
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "iproute2, kmod, python3")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS
  "can-utils, user-mode-linux, qemu-system-x86, busybox-static, cpio, qemu-system-arm")
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "servo drives of wheeled robots over CAN, programs
motorctl commissions and diagnoses servo drives from the command line: it
checks the bus, finds nodes, reads and writes their objects, turns a wheel and
stops it, and stops the wheels when a host dies (motorctl guard).

motor-drive-sim simulates drives on a CAN interface; with-can gives any command
a kernel with SocketCAN. The package also contains the documents, the examples,
descriptions of vehicles to begin with and the texts of error codes.")

# The libraries' own package, which dpkg does not know while the packages are being made. One package
# for both: they have the same version and change together.
set(package_of_libraries "${soversion} ${runtime_package} (>= ${PROJECT_VERSION})")
file(WRITE ${generated_directory}/shlibs
  "libmotor_driver ${package_of_libraries}\nlibmotor_driver_wheels ${package_of_libraries}\n")
configure_file(${debian_directory}/symbols.in ${generated_directory}/symbols @ONLY)
configure_file(${debian_directory}/shlibdeps.in ${generated_directory}/shlibdeps @ONLY
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
file(WRITE ${CPACK_PROJECT_CONFIG_FILE}
  "set(SHLIBDEPS_EXECUTABLE ${generated_directory}/shlibdeps)\n")

# SOURCE_DATE_EPOCH, where it is set.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${debian_directory}/changelog.in ${generated_directory}/changelog.Debian @ONLY)
foreach(component IN ITEMS RUNTIME DEVELOPMENT TOOLS)
  set(documents ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME})
  string(TOLOWER ${component} component)
  install(FILES ${debian_directory}/copyright ${generated_directory}/changelog.Debian
    DESTINATION ${documents} COMPONENT ${component})
  install(FILES ${PROJECT_SOURCE_DIR}/CHANGELOG.md RENAME changelog
    DESTINATION ${documents} COMPONENT ${component})
endforeach()

include(CPack)
