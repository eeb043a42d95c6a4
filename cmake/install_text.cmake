# Part of the install script (install_text in packaging.cmake says what the variables are): fills in
# one text and installs it.

set(prefix "${CMAKE_INSTALL_PREFIX}")
set(sysconfdir "${prefix}/etc")
if(prefix STREQUAL "/usr")
  set(sysconfdir /etc)
endif()

string(CONFIGURE "${folder}" folder @ONLY)
if(NOT IS_ABSOLUTE "${folder}")
  set(folder "${prefix}/${folder}")
endif()
cmake_path(GET template STEM LAST_ONLY name) # without .in
set(text "${staging}/${name}")
configure_file("${template}" "${text}" @ONLY)
if(compress)
  # No name and no time inside: the same text gives the same bytes.
  execute_process(COMMAND gzip -9nf "${text}" COMMAND_ERROR_IS_FATAL ANY)
  string(APPEND text .gz)
endif()
if(NOT keep OR NOT EXISTS "$ENV{DESTDIR}${folder}/${name}")
  file(INSTALL "${text}" DESTINATION "${folder}")
endif()
