# Warnings for our own targets. As errors only in a developer build: a packager's newer compiler must
# not be stopped by a warning it has just learned.
add_library(motor_driver_warnings INTERFACE)
target_compile_options(motor_driver_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  $<$<BOOL:${MOTOR_DRIVER_DEVELOPER}>:-Werror>)
