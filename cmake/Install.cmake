# What `cmake --install` puts where: the binary, the library in both forms, headers under morvane/,
# pkg-config and CMake package files, the manual pages, the systemd unit and the logrotate settings.
# Their readers look in /etc: packages configure with -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc.
include(CMakePackageConfigHelpers)

install(TARGETS zent RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS morvane_shared morvane_static EXPORT morvane-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${MORVANE_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/morvane)

set(MORVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/morvane)
install(EXPORT morvane-targets NAMESPACE morvane:: DESTINATION ${MORVANE_CMAKE_DIR})
configure_package_config_file(cmake/morvane-config.cmake.in morvane-config.cmake
  INSTALL_DESTINATION ${MORVANE_CMAKE_DIR})
write_basic_package_version_file(morvane-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/morvane-config.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/morvane-config-version.cmake DESTINATION ${MORVANE_CMAKE_DIR})

# From pkgconfig/ below the library's folder to the prefix; folders outside the prefix are told as they are.
cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  OUTPUT_VARIABLE MORVANE_PC_TO_PREFIX)
foreach(dir LIBDIR INCLUDEDIR)
  cmake_path(IS_ABSOLUTE CMAKE_INSTALL_${dir} is_elsewhere)
  if(is_elsewhere)
    set(MORVANE_PC_${dir} ${CMAKE_INSTALL_${dir}})
  else()
    set(MORVANE_PC_${dir} "\${prefix}/${CMAKE_INSTALL_${dir}}")
  endif()
endforeach()
configure_file(cmake/libmorvane.pc.in libmorvane.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/libmorvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

include(cmake/Manual.cmake)

install(FILES packaging/systemd/zent@.service DESTINATION ${MORVANE_UNITDIR})
if(MORVANE_MONITOR)
  install(FILES packaging/systemd/zentmon.service packaging/systemd/zentmon.socket DESTINATION ${MORVANE_UNITDIR})
endif()
install(FILES packaging/sysusers/zent.conf DESTINATION lib/sysusers.d)
install(FILES packaging/tmpfiles/zent.conf DESTINATION lib/tmpfiles.d)
install(FILES packaging/logrotate/zent DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/logrotate.d)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples
  FILES_MATCHING PATTERN "*.c" PATTERN "*.cpp" PATTERN "Makefile" PATTERN "CMakeLists.txt")
foreach(program sbin.zent sbin.zentmon bin.zentctl)
  string(REGEX REPLACE ".*\\." "" target ${program})
  if(TARGET ${target})
    install(FILES packaging/apparmor/usr.${program} DESTINATION ${CMAKE_INSTALL_SYSCONFDIR}/apparmor.d)
  endif()
endforeach()
install(FILES packaging/systemd/zent.env DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
if(MORVANE_MONITOR)
  install(FILES packaging/nginx/zentmon.conf DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/nginx)
  install(FILES packaging/prometheus/zentmon.rules.yml DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples/prometheus)
endif()

include(cmake/Completions.cmake)
