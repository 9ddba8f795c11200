# zentmon: built where its three libraries are, left out with a notice where one is missing.
find_path(MONITOR_JSON_DIR nlohmann/json.hpp)
find_path(MONITOR_SQLITE_DIR sqlite3.h)
find_library(MONITOR_SQLITE sqlite3)
find_path(MONITOR_MQTT_DIR mosquitto.h)
find_library(MONITOR_MQTT mosquitto)
mark_as_advanced(MONITOR_JSON_DIR MONITOR_SQLITE_DIR MONITOR_SQLITE MONITOR_MQTT_DIR MONITOR_MQTT)

set(MONITOR_MISSING "")
foreach(needed "MONITOR_JSON_DIR:nlohmann-json3-dev" "MONITOR_SQLITE_DIR:libsqlite3-dev" "MONITOR_SQLITE:libsqlite3-dev"
    "MONITOR_MQTT_DIR:libmosquitto-dev" "MONITOR_MQTT:libmosquitto-dev")
  string(REPLACE ":" ";" needed ${needed})
  list(GET needed 0 variable)
  list(GET needed 1 package)
  if(NOT ${variable})
    list(APPEND MONITOR_MISSING ${package})
  endif()
endforeach()
list(REMOVE_DUPLICATES MONITOR_MISSING)

set(MONITOR_HERE ON)
if(MONITOR_MISSING)
  set(MONITOR_HERE OFF)
endif()
option(MORVANE_MONITOR "build zentmon, the receiver of the agents' lines" ${MONITOR_HERE})
if(MONITOR_MISSING)
  list(JOIN MONITOR_MISSING " " MONITOR_MISSING)
  if(MORVANE_MONITOR)
    message(FATAL_ERROR "zentmon needs ${MONITOR_MISSING}: install them, or configure with -DMORVANE_MONITOR=OFF")
  endif()
  message(NOTICE "zentmon is left out: ${MONITOR_MISSING} is missing")
endif()
if(NOT MORVANE_MONITOR)
  return()
endif()

find_package(Threads REQUIRED)

# main() and the flags that an application owes the library stand in zentmon.cpp; the rest is linked into the
# tests as well.
file(GLOB MONITOR_SOURCES CONFIGURE_DEPENDS monitor/*.cpp)
file(GLOB MONITOR_WEB CONFIGURE_DEPENDS monitor/web/*)
set(MONITOR_PAGE ${CMAKE_BINARY_DIR}/generated/page_files.h)
add_custom_command(OUTPUT ${MONITOR_PAGE}
  COMMAND ${CMAKE_COMMAND} -DFROM=${CMAKE_SOURCE_DIR}/monitor/web -DTO=${MONITOR_PAGE}
    -P ${CMAKE_SOURCE_DIR}/cmake/EmbedPage.cmake
  DEPENDS ${MONITOR_WEB} ${CMAKE_SOURCE_DIR}/cmake/EmbedPage.cmake
  COMMENT "The page of zentmon" VERBATIM)
list(FILTER MONITOR_SOURCES EXCLUDE REGEX "/zentmon\\.cpp$")
if(MORVANE_FUZZ AND NOT MORVANE_TESTS)
  # What the fuzz targets link, and no program: the other half of the sources takes longer to compile than this one.
  set(fuzzed agents api counters entries event events filter http http_head line loop metrics names order page state)
  list(TRANSFORM fuzzed REPLACE "(.+)" "${CMAKE_SOURCE_DIR}/monitor/\\1.cpp" OUTPUT_VARIABLE MONITOR_SOURCES)
endif()
add_library(zentmon_objects OBJECT ${MONITOR_SOURCES} ${MONITOR_PAGE})
target_include_directories(zentmon_objects PRIVATE ${CMAKE_BINARY_DIR}/generated)
target_include_directories(zentmon_objects PUBLIC monitor include)
target_include_directories(zentmon_objects SYSTEM PUBLIC ${MONITOR_JSON_DIR} ${MONITOR_SQLITE_DIR} ${MONITOR_MQTT_DIR})
target_compile_options(zentmon_objects PRIVATE -fvisibility=hidden)
target_link_libraries(zentmon_objects PRIVATE morvane_flags)
target_precompile_headers(zentmon_objects PRIVATE monitor/precompiled.h)
if(MORVANE_FUZZ AND NOT MORVANE_TESTS)
  return()
endif()

add_executable(zentmon monitor/zentmon.cpp $<TARGET_OBJECTS:zentmon_objects>)
target_include_directories(zentmon PRIVATE monitor include)
target_link_libraries(zentmon PRIVATE morvane_flags morvane_static ${MONITOR_SQLITE} ${MONITOR_MQTT} Threads::Threads)
install(TARGETS zentmon RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
