# The tree's floors: proto/ reads nothing but the public headers; nothing outside src/ reads a
# header of the library's own (src/), but the tests of the library's internals, which link
# the target that src/ exposes for them (INTERNAL: their sources); no CMakeLists.txt outside
# src/ puts src/ on an include path; every CMakeLists.txt names its sources (no GLOB).
#   cmake -DSOURCE_DIR=... "-DINTERNAL=a.cpp;b.cpp" -P check_layers.cmake
cmake_minimum_required(VERSION 3.25)
set(problems "")

# Quoted includes of one file, as "path" strings.
function(quoted_includes file out)
  file(STRINGS ${file} lines REGEX "^[ \t]*#[ \t]*include[ \t]+\"")
  set(found "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]+\"([^\"]+)\".*$" "\\1" inc "${line}")
    list(APPEND found "${inc}")
  endforeach()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()

set(internal "")
foreach(f IN LISTS INTERNAL)
  get_filename_component(abs "${f}" ABSOLUTE BASE_DIR ${SOURCE_DIR}/tests)
  list(APPEND internal "${abs}")
endforeach()

foreach(floor platform proto sim tools tests fuzz bench examples)
  file(GLOB_RECURSE sources ${SOURCE_DIR}/${floor}/*.c ${SOURCE_DIR}/${floor}/*.h ${SOURCE_DIR}/${floor}/*.cpp
       ${SOURCE_DIR}/${floor}/*.hpp)
  foreach(file IN LISTS sources)
    if(file IN_LIST internal)
      continue()
    endif()
    get_filename_component(dir ${file} DIRECTORY)
    quoted_includes(${file} incs)
    foreach(inc IN LISTS incs)
      # A header beside the file, or under its floor, is its own.
      if(EXISTS ${dir}/${inc} OR EXISTS ${SOURCE_DIR}/${floor}/${inc})
        continue()
      endif()
      if(EXISTS ${SOURCE_DIR}/src/${inc} OR inc MATCHES "(^|/)src/")
        list(APPEND problems "${file}: includes the library's own header \"${inc}\"")
      elseif(floor STREQUAL "proto" AND NOT EXISTS ${SOURCE_DIR}/include/${inc})
        list(APPEND problems "${file}: proto/ reads only proto/ and the public headers, not \"${inc}\"")
      endif()
    endforeach()
  endforeach()
endforeach()

file(GLOB_RECURSE lists ${SOURCE_DIR}/CMakeLists.txt ${SOURCE_DIR}/*/CMakeLists.txt)
foreach(file IN LISTS lists)
  if(file MATCHES "^${SOURCE_DIR}/build")
    continue()
  endif()
  file(READ ${file} text)
  if(text MATCHES "file\\([ \t\n]*GLOB")
    list(APPEND problems "${file}: lists its sources with GLOB")
  endif()
  if(NOT file MATCHES "^${SOURCE_DIR}/src/" AND text MATCHES "(PROJECT_SOURCE_DIR|CMAKE_SOURCE_DIR)}/src")
    list(APPEND problems "${file}: puts src/ on a path outside src/")
  endif()
endforeach()

if(problems)
  list(JOIN problems "\n  " text)
  message(FATAL_ERROR "layers crossed:\n  ${text}")
endif()
