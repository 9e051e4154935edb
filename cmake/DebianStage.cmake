# Compresses manual pages and changelogs before CPack makes the packages.
file(GLOB_RECURSE documents ${CPACK_TEMPORARY_DIRECTORY}/*)
list(FILTER documents INCLUDE REGEX "/share/(man/man1/.*\\.1|doc/[^/]*/changelog[^/]*)$")
foreach(document IN LISTS documents)
  execute_process(COMMAND gzip -9 --no-name ${document} COMMAND_ERROR_IS_FATAL ANY)
endforeach()
