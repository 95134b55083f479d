# ipctl is written on the library's exported C functions and the device's directory alone:
# every symbol the binary leaves undefined is either the C or C++ run-time's (versioned
# @GLIBC, @GLIBCXX, @CXXABI or @GCC, or weak) or a name that a public header declares with
# IPCLIENT_API (include/ipclient/*.h), or one of the platform's directory calls: the node,
# device-context and interface calls (LIP_, DEV_, MDC_, IF_) that
# platform/include/ipplat/platform.h declares with IPPLAT_API.
#
#   cmake -DTOOL=<ipctl binary> -DSOURCE_DIR=<source tree> "-DLIBS=<libipclient>;<platform library>"
#         -P check_ipctl_symbols.cmake
execute_process(COMMAND nm -D --undefined-only ${TOOL} OUTPUT_VARIABLE nm_out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${TOOL}")
endif()

# The names the tool may use.
set(allowed "")
file(GLOB headers ${SOURCE_DIR}/include/ipclient/*.h)
foreach(h IN LISTS headers)
  file(STRINGS ${h} decls REGEX "^IPCLIENT_API ")
  foreach(d IN LISTS decls)
    string(REGEX REPLACE "^IPCLIENT_API [^(;[]*[ *]([A-Za-z_][A-Za-z0-9_]*)[ ]*[(;[].*$" "\\1" name "${d}")
    list(APPEND allowed ${name})
  endforeach()
endforeach()
file(STRINGS ${SOURCE_DIR}/platform/include/ipplat/platform.h decls REGEX "^IPPLAT_API ")
set(directory "")
foreach(d IN LISTS decls)
  string(REGEX REPLACE "^IPPLAT_API [^(;[]*[ *]([A-Za-z_][A-Za-z0-9_]*)[ ]*[(;[].*$" "\\1" name "${d}")
  if(name MATCHES "^(LIP|DEV|MDC|IF)_")
    list(APPEND directory ${name})
  endif()
endforeach()
list(LENGTH allowed n_api)
list(LENGTH directory n_dir)
if(n_api EQUAL 0 OR n_dir EQUAL 0)
  message(FATAL_ERROR "no declarations found under ${SOURCE_DIR} (${n_api} exported, ${n_dir} directory calls)")
endif()
list(APPEND allowed ${directory})

# What libipclient and the platform library define: the names to check.
set(provided "")
foreach(lib IN LISTS LIBS)
  execute_process(COMMAND nm -D --defined-only ${lib} OUTPUT_VARIABLE lib_out RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed on ${lib}")
  endif()
  string(REGEX MATCHALL "[0-9a-f]+ [TDBRVWi] [A-Za-z_][A-Za-z0-9_]*" lib_rows "${lib_out}")
  foreach(r IN LISTS lib_rows)
    string(REGEX REPLACE "^[0-9a-f]+ [TDBRVWi] " "" n "${r}")
    list(APPEND provided ${n})
  endforeach()
endforeach()
list(LENGTH provided n_provided)
if(n_provided EQUAL 0)
  message(FATAL_ERROR "no symbols found in the libraries: ${LIBS}")
endif()

# nm prints "                 U name@VERSION" or "                 w name".
string(REPLACE "\n" ";" rows "${nm_out}")
set(offending "")
set(used 0)
foreach(row IN LISTS rows)
  string(STRIP "${row}" row)
  if(row STREQUAL "")
    continue()
  endif()
  if(NOT row MATCHES "^([A-Za-z]) ([^ @]+)(@@?([^ ]+))?$")
    message(FATAL_ERROR "cannot read the nm line \"${row}\"")
  endif()
  set(kind "${CMAKE_MATCH_1}")
  set(name "${CMAKE_MATCH_2}")
  set(version "${CMAKE_MATCH_4}")
  if(kind STREQUAL "w" OR version MATCHES "^(GLIBC|GLIBCXX|CXXABI|GCC)_")
    continue()
  endif()
  # Only what the project's libraries provide is held to the list (a sanitizer build
  # leaves the run-time's and its interceptors' names undefined too, unversioned).
  list(FIND provided "${name}" ours)
  if(ours EQUAL -1)
    continue()
  endif()
  list(FIND allowed "${name}" at)
  if(at EQUAL -1)
    list(APPEND offending "${name}${CMAKE_MATCH_3}")
  else()
    math(EXPR used "${used} + 1")
  endif()
endforeach()

if(offending)
  list(JOIN offending "\n  " text)
  message(FATAL_ERROR "ipctl uses symbols that are neither exported by libipclient nor directory calls of the platform:\n  ${text}")
endif()
message(STATUS "ipctl uses ${used} symbols of the library and the platform's directory, all declared")
