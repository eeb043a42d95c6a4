# What `cmake --install` installs, and the Debian packages that cpack makes of it (scripts/package).
#
#   component   package             holds
#   daemon      kestrelbridge       daemon, kestrelshare, kestrelctl, service, manual pages, documentation, a clip
#   dev         kestrelbridge-dev   the headers of the shared memory, for other programs
#   gstreamer   gstreamer1.0-kestrelbridge   the GStreamer source; where it is built
#   rtsp        kestrelbridge-rtsp  kestrel-rtsp, its service and manual page; likewise
#   console     kestrelbridge-console   kestrelconsole, its service and manual page; where it is built
#
# The layout is Debian's, below any prefix. The prefix /usr stands for the system's own packages:
# there the configuration is in /etc, and what Debian wants to know about a package comes with it.

include(CMakePackageConfigHelpers)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME daemon)
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(doc_dir share/doc/kestrelbridge)
set(dev_doc_dir share/doc/kestrelbridge-dev)
set(for_system FALSE)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(for_system TRUE)
endif()

# install_text(TEMPLATE DESTINATION COMPONENT [COMPRESS] [KEEP]): a text that names the version or
# installed paths. It is filled in while installing, since the prefix may be chosen as late as that.
# COMPRESS: with gzip. KEEP: a file that is there already is the administrator's.
function(install_text template destination component)
  cmake_parse_arguments(arg "COMPRESS;KEEP" "" "" ${ARGN})
  install(CODE "set(template [[${PROJECT_SOURCE_DIR}/packaging/${template}]])
set(folder [[${destination}]])
set(staging [[${PROJECT_BINARY_DIR}/packaging/${component}]])
set(version ${PROJECT_VERSION})
set(multiarch [[${CMAKE_LIBRARY_ARCHITECTURE}]])
set(compress ${arg_COMPRESS})
set(keep ${arg_KEEP})" COMPONENT ${component})
  install(SCRIPT ${PROJECT_SOURCE_DIR}/cmake/install_text.cmake COMPONENT ${component})
endfunction()

# install_document(DOCUMENT): its links lead where the headers and the licence are on the box.
function(install_document document)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${document})
  file(READ ${document} text)
  string(REPLACE "](include/" "](../../../include/" text "${text}")
  string(REPLACE "](../include/" "](../../../../include/" text "${text}")
  string(REPLACE "](LICENSE)" "](copyright)" text "${text}")
  set(filled_in ${PROJECT_BINARY_DIR}/packaging/documents/${document})
  file(CONFIGURE OUTPUT ${filled_in} CONTENT "@text@" @ONLY)
  cmake_path(GET document PARENT_PATH folder)
  install(FILES ${filled_in} DESTINATION ${doc_dir}/${folder})
endfunction()

# --- daemon -----------------------------------------------------------------------------------

install(TARGETS kestrelbridge RUNTIME DESTINATION sbin)
install(TARGETS kestrelctl kestrelshare RUNTIME DESTINATION bin)
install_text(kestrelbridge.service.in lib/systemd/system daemon)
install_text(kestrelbridge-share.service.in lib/systemd/system daemon)
install(PROGRAMS packaging/lib/access-point packaging/lib/packet-filter packaging/lib/prepare-memory
        packaging/lib/redirect-rules packaging/lib/telemetry-way DESTINATION lib/kestrelbridge)
install(CODE [[
  set(rule "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/lib/kestrelbridge/rule")
  file(MAKE_DIRECTORY "${rule}")
  file(RELATIVE_PATH target "${CMAKE_INSTALL_PREFIX}/lib/kestrelbridge/rule" /usr/sbin/iptables-nft)
  file(CREATE_LINK "${target}" "${rule}/iptables" SYMBOLIC)
]] COMPONENT daemon)
foreach(kind IN ITEMS sysusers tmpfiles)
  install(FILES packaging/systemd/${kind}.conf RENAME kestrelbridge.conf DESTINATION lib/${kind}.d)
endforeach()
install_text(default/kestrelbridge.in @sysconfdir@/default daemon KEEP)
install_text(man/kestrelbridge.8.in share/man/man8 daemon COMPRESS)
install_text(man/kestrelshare.8.in share/man/man8 daemon COMPRESS)
install_text(man/kestrelctl.1.in share/man/man1 daemon COMPRESS)
install(FILES packaging/completion/kestrelbridge packaging/completion/kestrelctl
        DESTINATION share/bash-completion/completions)
# Debian keeps site-functions for the administrator, whose place is /usr/local.
set(zsh_dir share/zsh/site-functions)
if(for_system)
  set(zsh_dir share/zsh/vendor-completions)
endif()
install(FILES packaging/completion/_kestrelbridge packaging/completion/_kestrelctl
        DESTINATION ${zsh_dir})
install(FILES packaging/completion/kestrelbridge.fish packaging/completion/kestrelctl.fish
        DESTINATION share/fish/vendor_completions.d)
install(FILES tools/clips/test-pattern-720p30.h264 DESTINATION share/kestrelbridge/clips)
install(FILES CHANGELOG.md CONTRIBUTING.md packaging/debian/copyright DESTINATION ${doc_dir})
file(GLOB documents RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS docs/*.md)
foreach(document IN ITEMS README.md bench/README.md fuzz/README.md tools/clips/README.md ${documents})
  install_document(${document})
endforeach()
install(PROGRAMS packaging/examples/90-kestrelbridge DESTINATION ${doc_dir}/examples)
install(FILES docs/console.png DESTINATION ${doc_dir}/docs)
install(FILES docs/example/main_application.cpp DESTINATION ${doc_dir}/docs/example)

# --- dev --------------------------------------------------------------------------------------

# find_package(kestrelbridge) gives kestrelbridge::frame_block. Header-only, so the same files serve
# every architecture.
add_library(kestrelbridge_frame_block INTERFACE)
set_target_properties(kestrelbridge_frame_block PROPERTIES EXPORT_NAME frame_block)
target_compile_features(kestrelbridge_frame_block INTERFACE cxx_std_17)
target_include_directories(kestrelbridge_frame_block INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>)
target_link_libraries(kestrelbridge_frame_block INTERFACE rt)

set(cmake_dir share/cmake/kestrelbridge)
install(TARGETS kestrelbridge_frame_block EXPORT kestrelbridge)
install(EXPORT kestrelbridge NAMESPACE kestrelbridge:: FILE kestrelbridge-config.cmake
        DESTINATION ${cmake_dir} COMPONENT dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/packaging/kestrelbridge-config-version.cmake
  COMPATIBILITY SameMinorVersion ARCH_INDEPENDENT)
install(FILES ${PROJECT_BINARY_DIR}/packaging/kestrelbridge-config-version.cmake
        DESTINATION ${cmake_dir} COMPONENT dev)
install_text(kestrelbridge.pc.in share/pkgconfig dev)
install(DIRECTORY include/kestrelbridge DESTINATION include COMPONENT dev)
install(PROGRAMS packaging/examples/90-kestrelbridge DESTINATION ${doc_dir}/examples)
install(FILES docs/example/main_application.cpp DESTINATION ${dev_doc_dir}/examples COMPONENT dev)
install(FILES packaging/debian/copyright DESTINATION ${dev_doc_dir} COMPONENT dev)

# --- gstreamer, rtsp ----------------------------------------------------------------------------

set(components daemon dev)
if(KESTRELBRIDGE_GSTREAMER)
  list(APPEND components gstreamer rtsp)
  install(TARGETS gstkestrelbridge COMPONENT gstreamer
          LIBRARY DESTINATION lib/${CMAKE_LIBRARY_ARCHITECTURE}/gstreamer-1.0)
  install(FILES packaging/debian/copyright COMPONENT gstreamer
          DESTINATION share/doc/gstreamer1.0-kestrelbridge)

  install(TARGETS kestrel-rtsp COMPONENT rtsp RUNTIME DESTINATION bin)
  install_text(kestrelbridge-rtsp.service.in lib/systemd/system rtsp)
  install(FILES packaging/systemd/sysusers-rtsp.conf RENAME kestrelbridge-rtsp.conf
          DESTINATION lib/sysusers.d COMPONENT rtsp)
  install_text(default/kestrelbridge-rtsp.in @sysconfdir@/default rtsp KEEP)
  install_text(man/kestrel-rtsp.8.in share/man/man8 rtsp COMPRESS)
  install(FILES packaging/debian/copyright DESTINATION share/doc/kestrelbridge-rtsp COMPONENT rtsp)
endif()

# --- console ----------------------------------------------------------------------------------

if(KESTRELBRIDGE_CONSOLE)
  list(APPEND components console)
  install(TARGETS kestrelconsole COMPONENT console RUNTIME DESTINATION bin)
  install_text(kestrelbridge-console.service.in lib/systemd/system console)
  install(FILES packaging/systemd/sysusers-console.conf RENAME kestrelbridge-console.conf
          DESTINATION lib/sysusers.d COMPONENT console)
  install_text(default/kestrelbridge-console.in @sysconfdir@/default console KEEP)
  install_text(man/kestrelconsole.8.in share/man/man8 console COMPRESS)
  install(FILES packaging/debian/console/copyright DESTINATION share/doc/kestrelbridge-console
          COMPONENT console)
endif()

# --- Debian packages --------------------------------------------------------------------------

if(NOT for_system)
  return()
endif()

set(daemon_package kestrelbridge)
set(dev_package kestrelbridge-dev)
set(gstreamer_package gstreamer1.0-kestrelbridge)
set(rtsp_package kestrelbridge-rtsp)
set(console_package kestrelbridge-console)
foreach(component IN LISTS components)
  set(package ${${component}_package})
  install_text(debian/changelog.Debian.in share/doc/${package} ${component} COMPRESS)
  if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/debian/${package}.lintian-overrides)
    install(FILES packaging/debian/${package}.lintian-overrides RENAME ${package}
            DESTINATION share/lintian/overrides COMPONENT ${component})
  endif()
endforeach()

if(NOT DEFINED KESTRELBRIDGE_ARCHITECTURE) # a cross build's toolchain file says it
  execute_process(COMMAND dpkg --print-architecture OUTPUT_VARIABLE KESTRELBRIDGE_ARCHITECTURE
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()
# Who publishes packages gives an address of theirs; example.org belongs to nobody.
set(KESTRELBRIDGE_MAINTAINER "kestrelbridge authors <kestrelbridge@example.org>" CACHE STRING
    "Maintainer that the Debian packages name")

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_SET_DESTDIR ON) # so that the texts name the paths on the box
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT ${KESTRELBRIDGE_MAINTAINER})
set(KESTRELBRIDGE_HOMEPAGE "https://example.org/kestrelbridge" CACHE STRING
    "Where the project is found, for the packages")
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE ${KESTRELBRIDGE_HOMEPAGE})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${KESTRELBRIDGE_ARCHITECTURE})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME kestrelbridge)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SECTION video)
set(CPACK_DEBIAN_DAEMON_PACKAGE_SHLIBDEPS ON)
# The users, and the files in /dev/shm and /run.
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS "systemd | systemd-standalone-sysusers, systemd | systemd-standalone-tmpfiles")
# The phone app's way to the camera, and the packet filter.
set(CPACK_DEBIAN_DAEMON_PACKAGE_RECOMMENDS "iptables, nftables")
set(CPACK_DEBIAN_DAEMON_PACKAGE_SUGGESTS ffmpeg)     # a player
set(debian_dir ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
    ${debian_dir}/conffiles ${debian_dir}/postinst ${debian_dir}/prerm ${debian_dir}/postrm)
set(CPACK_COMPONENT_DAEMON_DESCRIPTION "Wi-Fi bridge to an action camera
The daemon holds the link to an action camera whose Wi-Fi network the box
has joined. Every access unit of the live H.264 picture goes into a ring in
shared memory, where other programs read it without ever holding it up. It
also reports the camera's state, passes commands on and lets the camera
maker's phone app use the camera at the same time.

kestrelctl, the bench, stands in for each neighbour of the daemon: the whole
system can be tried without a camera.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME kestrelbridge-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SUGGESTS kestrelbridge)
set(CPACK_COMPONENT_DEV_DESCRIPTION "Wi-Fi bridge to an action camera (headers)
kestrelbridge puts a camera's live H.264 picture into shared memory. These
headers describe that memory and the remote-control block, and hold the
reader that a program of yours needs. They are C++17 without dependencies,
with files for CMake (kestrelbridge::frame_block) and pkg-config.")

set(CPACK_DEBIAN_GSTREAMER_PACKAGE_NAME gstreamer1.0-kestrelbridge)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SHLIBDEPS ON) # libgstreamer1.0-0, libgstreamer-plugins-base1.0-0
set(CPACK_DEBIAN_GSTREAMER_PACKAGE_SUGGESTS
    "kestrelbridge, gstreamer1.0-tools, gstreamer1.0-plugins-base, gstreamer1.0-plugins-good")
set(CPACK_COMPONENT_GSTREAMER_DESCRIPTION "Wi-Fi bridge to an action camera (GStreamer source)
kestrelbridge puts a camera's live H.264 picture into shared memory. The
element kestrelbridgesrc reads it there and hands it to every GStreamer
pipeline: to a window, a network, a file, a program.

It needs no parser behind it, and outlives restarts of the daemon.")

set(CPACK_DEBIAN_RTSP_PACKAGE_NAME kestrelbridge-rtsp)
set(CPACK_DEBIAN_RTSP_PACKAGE_SECTION video)
set(CPACK_DEBIAN_RTSP_PACKAGE_SHLIBDEPS ON)
# The group and the ring; the source; RTP and UDP, and appsink.
set(CPACK_DEBIAN_RTSP_PACKAGE_DEPENDS "kestrelbridge, gstreamer1.0-kestrelbridge (= ${PROJECT_VERSION}-1), gstreamer1.0-plugins-good, gstreamer1.0-plugins-base, systemd | systemd-standalone-sysusers")
set(CPACK_DEBIAN_RTSP_PACKAGE_SUGGESTS ffmpeg) # a player
set(CPACK_DEBIAN_RTSP_PACKAGE_CONTROL_EXTRA
    ${debian_dir}/rtsp/conffiles ${debian_dir}/rtsp/postinst ${debian_dir}/rtsp/prerm
    ${debian_dir}/rtsp/postrm)
set(CPACK_COMPONENT_RTSP_DESCRIPTION "Wi-Fi bridge to an action camera (RTSP server)
kestrelbridge puts a camera's live H.264 picture into shared memory.
kestrel-rtsp shows it to RTSP players, on this box or, with a password, on
others: rtsp://box:8554/live.

All viewers share one pipeline, each starts with a keyframe, and a slow one
holds up nobody. The service is off until it is enabled.")

set(CPACK_DEBIAN_CONSOLE_PACKAGE_NAME kestrelbridge-console)
set(CPACK_DEBIAN_CONSOLE_PACKAGE_SECTION video)
set(CPACK_DEBIAN_CONSOLE_PACKAGE_SHLIBDEPS ON)
# The group, the ring and the share.
set(CPACK_DEBIAN_CONSOLE_PACKAGE_DEPENDS "kestrelbridge, systemd | systemd-standalone-sysusers")
set(CPACK_DEBIAN_CONSOLE_PACKAGE_CONTROL_EXTRA
    ${debian_dir}/console/conffiles ${debian_dir}/console/postinst ${debian_dir}/console/prerm
    ${debian_dir}/console/postrm)
set(CPACK_COMPONENT_CONSOLE_DESCRIPTION "Wi-Fi bridge to an action camera (console for browsers)
kestrelbridge puts a camera's live H.264 picture into shared memory.
kestrelconsole shows it in a browser, with what the camera says of itself,
what its link loses, and a control for every command.

It answers this box alone until it is told otherwise; other machines take a
password, or may only look.")

include(CPack)
