# For programs that mostly wait. The reader of arguments is all templates: optimising it costs a
# developer's build more than everything that it serves. What is packaged is optimised.
add_library(motor_driver_quick_to_compile INTERFACE)
if(MOTOR_DRIVER_DEVELOPER AND NOT MOTOR_DRIVER_DEBIAN)
  target_compile_options(motor_driver_quick_to_compile INTERFACE -O0)
  # For directories of programs: the types of all headers are a quarter of what their build takes.
  set(MOTOR_DRIVER_LINES_ONLY -g1)
endif()
