# Warning set shared by every target of the project. Warnings become errors only when
# IPCLIENT_WERROR is on (the project's scripts and CI turn it on), so that a consumer's build
# never fails on a warning a newer compiler adds.
option(IPCLIENT_WERROR "Treat compiler warnings as errors" OFF)
add_library(ipclient_warnings INTERFACE)
target_compile_options(ipclient_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wcast-align -Wnull-dereference -Wdouble-promotion -Wformat=2
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<BOOL:${IPCLIENT_WERROR}>:-Werror>)
# At -O3 and -Os GCC 12 follows the tests' vector and string temporaries through the
# inlined standard library and reports bounds and null paths that cannot happen there. Test
# code (targets with the property IPCLIENT_TEST_CODE) gives up those flow warnings at those
# levels only; the library and the simulator keep them at every level.
set(IPCLIENT_TEST_OPTIMISED
  "$<AND:$<CXX_COMPILER_ID:GNU>,$<CONFIG:Release,MinSizeRel>,$<BOOL:$<TARGET_PROPERTY:IPCLIENT_TEST_CODE>>>")
target_compile_options(ipclient_warnings INTERFACE
  "$<${IPCLIENT_TEST_OPTIMISED}:-Wno-array-bounds;-Wno-stringop-overread;-Wno-stringop-overflow;-Wno-restrict;-Wno-null-dereference>")
