# Installs the file `template` as `directory`/`name`, of the kind `type`, with the paths of the
# daemon and of what tells it about printers in it: `sbindir`/bonjour and `sbindir`/bonjour-printers.
# Both directories are below the prefix unless they begin with a slash. The prefix is chosen at
# install time, so that is when the file is made, each time in a separate directory.
get_filename_component(prefix "${CMAKE_INSTALL_PREFIX}" ABSOLUTE)
foreach(path sbindir directory)
  if(NOT IS_ABSOLUTE "${${path}}")
    set(${path} "${prefix}/${${path}}")
  endif()
endforeach()
set(BONJOUR_DAEMON "${sbindir}/bonjour")
set(BONJOUR_PRINTERS "${sbindir}/bonjour-printers")
string(RANDOM unique)
set(made "${build}/with-path-${unique}")
configure_file("${template}" "${made}/${name}" @ONLY)
file(INSTALL DESTINATION "${directory}" TYPE ${type} FILES "${made}/${name}")
file(REMOVE_RECURSE "${made}")
