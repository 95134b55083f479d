# The tree's floors: proto/ reads nothing but the public headers; nothing outside src/ reads a
# header of the library's own (src/), but the tests of the library's internals
# (kernel_internal_tests, which alone links the target that src/ exposes for them; INTERNAL:
# its sources); no CMakeLists.txt outside src/ puts src/ on an include path; every
# CMakeLists.txt names its sources (no GLOB).
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

get_filename_component(src_real ${SOURCE_DIR}/src REALPATH)
get_filename_component(proto_real ${SOURCE_DIR}/proto REALPATH)
get_filename_component(include_real ${SOURCE_DIR}/include REALPATH)
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
      # Where the compiler finds it: beside the file first, then on the floor's own path,
      # else (were src/ on the path) in src/.
      set(found "")
      if(EXISTS ${dir}/${inc})
        get_filename_component(found ${dir}/${inc} REALPATH)
      elseif(EXISTS ${SOURCE_DIR}/${floor}/${inc})
        get_filename_component(found ${SOURCE_DIR}/${floor}/${inc} REALPATH)
      elseif(EXISTS ${SOURCE_DIR}/src/${inc})
        get_filename_component(found ${SOURCE_DIR}/src/${inc} REALPATH)
      elseif(EXISTS ${SOURCE_DIR}/proto/${inc})
        get_filename_component(found ${SOURCE_DIR}/proto/${inc} REALPATH)
      elseif(EXISTS ${SOURCE_DIR}/include/${inc})
        get_filename_component(found ${SOURCE_DIR}/include/${inc} REALPATH)
      endif()
      if(found MATCHES "^${src_real}/")
        list(APPEND problems "${file}: includes the library's own header \"${inc}\"")
      elseif(floor STREQUAL "proto" AND NOT found MATCHES "^(${proto_real}|${include_real})/")
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
  file(STRINGS ${file} lines)
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "#.*$" "" code "${line}")
    string(TOLOWER "${code}" lower)
    if(lower MATCHES "file[ \t]*\\([ \t]*glob")
      list(APPEND problems "${file}: lists its sources with GLOB")
    endif()
    if(NOT file MATCHES "^${SOURCE_DIR}/src/" AND
       (code MATCHES "_SOURCE_DIR}/src([/ )\"]|$)" OR code MATCHES "/\\.\\./src([/ )\"]|$)" OR
        (code MATCHES "ipclient_internal" AND NOT code MATCHES "^target_link_libraries\\(kernel_internal_tests ")))
      list(APPEND problems "${file}: reaches into src/ from outside it: ${line}")
    endif()
  endforeach()
endforeach()

if(problems)
  list(JOIN problems "\n  " text)
  message(FATAL_ERROR "layers crossed:\n  ${text}")
endif()
