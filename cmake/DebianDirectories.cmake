# Debian's directories, which GNUInstallDirs does not find out by itself when it cross-builds.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-multiarch
  OUTPUT_VARIABLE debian_multiarch OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND dpkg-architecture -f -t${debian_multiarch} -qDEB_HOST_ARCH
  OUTPUT_VARIABLE debian_architecture OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET
  COMMAND_ERROR_IS_FATAL ANY)
set(CMAKE_INSTALL_PREFIX /usr)
set(CMAKE_INSTALL_LIBDIR lib/${debian_multiarch})
# The loader looks there anyway.
set(CMAKE_SKIP_INSTALL_RPATH ON)
