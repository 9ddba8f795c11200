# The manual: pages that are written stand in man/; those of the library's calls are made from the headers' comments.
# The target "reference" makes the same pages as HTML, in BUILD/reference.
foreach(section 1 3 5 7 8)
  file(GLOB pages CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/man/*.${section})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

find_package(Python3 COMPONENTS Interpreter)
if(NOT Python3_FOUND)
  message(NOTICE "Python 3 is missing: the manual pages of the library's calls are left out")
  return()
endif()
set(MORVANE_MANUAL ${CMAKE_BINARY_DIR}/manual)
set(conventions ${CMAKE_SOURCE_DIR}/docs/conventions.md)
add_custom_command(OUTPUT ${MORVANE_MANUAL}/made
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${MORVANE_MANUAL}
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/manpages ${CMAKE_SOURCE_DIR}/include ${conventions}
    ${MORVANE_MANUAL}
  COMMAND ${CMAKE_COMMAND} -E touch ${MORVANE_MANUAL}/made
  DEPENDS ${MORVANE_HEADERS} ${conventions} ${CMAKE_SOURCE_DIR}/scripts/manpages
    ${CMAKE_SOURCE_DIR}/scripts/header_docs.py
  COMMENT "manual pages of the library")
add_custom_target(manual ALL DEPENDS ${MORVANE_MANUAL}/made)
install(DIRECTORY ${MORVANE_MANUAL}/man3 ${MORVANE_MANUAL}/man7 DESTINATION ${CMAKE_INSTALL_MANDIR})

add_custom_target(reference
  COMMAND ${Python3_EXECUTABLE} ${CMAKE_SOURCE_DIR}/scripts/reference ${CMAKE_SOURCE_DIR}/man ${MORVANE_MANUAL}
    ${CMAKE_BINARY_DIR}/reference
  COMMENT "the manual as HTML")
add_dependencies(reference manual)
