# The calls that a test wraps (tests/support/wrap.h), read from its source.

# Sets out to the calls that a file wraps, and to those of the test headers that it includes; one that must not be
# made gets a "!" before its name.
function(read_wrapped_calls file out)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  file(READ ${file} text)
  get_filename_component(folder ${file} DIRECTORY)
  string(REGEX MATCHALL "\nWRAPPED[A-Z_]*\\([^,()]*, *[A-Za-z0-9_]+," lines "${text}")
  list(TRANSFORM lines REPLACE "WRAPPED_UNCALLED.*, *([^,]+),$" "X, !\\1,")
  list(TRANSFORM lines REPLACE ".*, *(!?[A-Za-z0-9_]+),$" "\\1")
  string(REGEX MATCHALL "\n#include \"[A-Za-z0-9_]+\\.h\"" headers "${text}")
  list(TRANSFORM headers REPLACE ".*\"(.*)\"" "\\1")
  foreach(header ${headers})
    foreach(place ${folder} ${CMAKE_SOURCE_DIR}/tests/support)
      if(EXISTS ${place}/${header})
        read_wrapped_calls(${place}/${header} more)
        list(APPEND lines ${more})
        break()
      endif()
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES lines)
  set(${out} ${lines} PARENT_SCOPE)
endfunction()

# Sends the calls that a source wraps to it, in a program; objects are what it links besides the library.
function(wrap_calls target source)
  get_filename_component(path ${source} ABSOLUTE)
  read_wrapped_calls(${path} calls)
  if(NOT calls)
    return()
  endif()
  string(REPLACE "!" "" names "${calls}")
  list(TRANSFORM names PREPEND -Wl,--wrap=)
  target_link_options(${target} PRIVATE ${names})
  set_property(GLOBAL APPEND_STRING PROPERTY WRAPS
    "${target}\t${calls}\t$<TARGET_OBJECTS:${target}>\t${ARGN}\n")
endfunction()
