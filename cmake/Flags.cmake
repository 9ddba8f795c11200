# Compiler and linker flags of everything that is built here: targets carry them, one for each kind of code.

# Assertions are part of the behaviour: no build type may switch them off.
foreach(lang C CXX)
  foreach(type RELEASE RELWITHDEBINFO MINSIZEREL)
    string(REPLACE "-DNDEBUG" "" CMAKE_${lang}_FLAGS_${type} "${CMAKE_${lang}_FLAGS_${type}}")
  endforeach()
  set(CMAKE_${lang}_FLAGS_RELEASE "-O2 -g")
endforeach()

set(CMAKE_C_STANDARD 11)
set(CMAKE_C_EXTENSIONS ON)
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

# What holds for everything: the warnings, and no path of this checkout in what is built.
add_library(morvane_warnings INTERFACE)
target_compile_options(morvane_warnings INTERFACE
  -Wall -Wextra -Wformat=2 -Wshadow -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=
  # Texts that are longer than their field are cut by design; where it matters the result is tested.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-format-truncation -Wno-stringop-truncation>)
if(MORVANE_WERROR)
  target_compile_options(morvane_warnings INTERFACE -Werror)
endif()

add_library(morvane_flags INTERFACE)
target_link_libraries(morvane_flags INTERFACE morvane_warnings)

# The product's own code; GoogleTest and Google Benchmark keep their exceptions and type information.
add_library(morvane_product_flags INTERFACE)
target_link_libraries(morvane_product_flags INTERFACE morvane_flags)
target_compile_options(morvane_product_flags INTERFACE
  -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fvisibility-inlines-hidden>)

# The tests' own code runs once and is compiled often: no optimisation, line numbers alone.
add_library(morvane_test_flags INTERFACE)
target_link_libraries(morvane_test_flags INTERFACE morvane_warnings)
target_compile_options(morvane_test_flags INTERFACE -U_FORTIFY_SOURCE -O0 -g1)

# What is shipped, by whatever build type: a distribution's build has None and brings flags of its own.
if(CMAKE_BUILD_TYPE STREQUAL "Debug" OR MORVANE_SANITIZE)
  set(MORVANE_SHIPPED OFF)
else()
  set(MORVANE_SHIPPED ON)
endif()
if(MORVANE_SHIPPED)
  target_compile_options(morvane_flags INTERFACE
    -D_FORTIFY_SOURCE=2 -fstack-protector-strong -fstack-clash-protection -fcf-protection)
  target_link_options(morvane_flags INTERFACE -Wl,-z,relro -Wl,-z,now)
  # A short copy whose greatest length the compiler knows would become "rep movs", which takes some 30 ns to start: a
  # call of memcpy is much faster. The same holds for memset.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    target_compile_options(morvane_product_flags INTERFACE
      -mmemcpy-strategy=unrolled_loop:64:noalign,libcall:-1:noalign
      -mmemset-strategy=unrolled_loop:64:noalign,libcall:-1:noalign)
  endif()
endif()
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

if(MORVANE_SANITIZE)
  target_compile_options(morvane_flags INTERFACE
    -fsanitize=${MORVANE_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer -O1 -g1)
  target_link_options(morvane_warnings INTERFACE -fsanitize=${MORVANE_SANITIZE})
endif()
if(MORVANE_SANITIZE MATCHES "address")
  # What the tests hand to the library lies between guards too, so that a step too far is seen; checks of the tests'
  # own accesses are calls, since inline ones take longer to compile than the rest.
  target_compile_options(morvane_test_flags INTERFACE
    -fsanitize=address -fno-sanitize-address-use-after-scope
    $<IF:$<CXX_COMPILER_ID:GNU>,--param=asan-instrumentation-with-call-threshold=0,-fsanitize-address-outline-instrumentation>)
endif()
if(MORVANE_SANITIZE MATCHES "memory")
  # Whatever writes a value must tell so: the tests too, and the templates of the C++ library, whose copies in
  # libstdc++.so tell nothing. Origins are kept by all of a process or by none. No optimisation: it would choose values for
  # variables that were never set, and nothing would be left to tell.
  target_compile_options(morvane_test_flags INTERFACE -fsanitize=memory -fsanitize-memory-track-origins)
  target_compile_options(morvane_flags INTERFACE -fsanitize-memory-track-origins -O0)
  target_compile_definitions(morvane_warnings INTERFACE _GLIBCXX_EXTERN_TEMPLATE=0)
endif()
if(MORVANE_COVERAGE)
  target_compile_options(morvane_flags INTERFACE --coverage)
  target_link_options(morvane_warnings INTERFACE --coverage)
  add_library(coverage_exit STATIC ${CMAKE_CURRENT_LIST_DIR}/coverage_exit.cpp)
  target_link_libraries(morvane_warnings INTERFACE coverage_exit
    -Wl,--wrap=_exit -Wl,--wrap=abort -Wl,--wrap=__assert_fail)
endif()
