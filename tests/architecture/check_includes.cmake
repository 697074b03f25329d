cmake_minimum_required(VERSION 3.25)
# Fails when a file under src/, platform/ or programs/ includes a header of a target that its own
# target does not link, directly or through what that links. The allowed directions come from the
# build graph (GRAPH, written at configure time), so the link lists are the only table.
#   cmake -DROOT=<tree> -DGRAPH=<build>/architecture_graph.cmake -P check_includes.cmake
#
# Every include is resolved to a file, the way the compiler would find it (next to the including
# file, then under src/, then under the project root), and owned by the targets of the directory
# it is in; so "../store/x.hpp" and <core/x.hpp> are checked as well as "store/x.hpp". Includes
# that resolve to nothing in the tree are system headers and are not ours to check.

include("${GRAPH}")

# Targets per directory: a directory may hold a program and the library it is built from.
foreach(target IN LISTS quorel_targets)
  list(APPEND owners_${dir_${target}} ${target})
  list(APPEND known_dirs "${dir_${target}}")
endforeach()
list(REMOVE_DUPLICATES known_dirs)

# What each target may use: itself and the transitive closure of its links.
foreach(target IN LISTS quorel_targets)
  set(reach ${target})
  set(frontier ${target})
  while(frontier)
    list(POP_FRONT frontier current)
    foreach(dep IN LISTS deps_${current})
      if(NOT dep IN_LIST reach)
        list(APPEND reach ${dep})
        list(APPEND frontier ${dep})
      endif()
    endforeach()
  endwhile()
  set(reach_${target} ${reach})
endforeach()

# The directory (relative to ROOT) whose targets own `path`, or empty.
function(owning_dir path out)
  file(RELATIVE_PATH rel "${ROOT}" "${path}")
  get_filename_component(dir "${rel}" DIRECTORY)
  while(NOT dir STREQUAL "")
    if(dir IN_LIST known_dirs)
      set(${out} "${dir}" PARENT_SCOPE)
      return()
    endif()
    get_filename_component(dir "${dir}" DIRECTORY)
  endwhile()
  set(${out} "" PARENT_SCOPE)
endfunction()

file(GLOB_RECURSE sources
  "${ROOT}/src/*.hpp" "${ROOT}/src/*.cpp" "${ROOT}/src/*.h"
  "${ROOT}/platform/*.hpp" "${ROOT}/platform/*.cpp" "${ROOT}/platform/*.h"
  "${ROOT}/programs/*.hpp" "${ROOT}/programs/*.cpp" "${ROOT}/programs/*.h")
set(violations "")
set(checked 0)
foreach(file IN LISTS sources)
  file(RELATIVE_PATH rel "${ROOT}" "${file}")
  owning_dir("${file}" self_dir)
  if(self_dir STREQUAL "")
    string(APPEND violations "\n  ${rel}: belongs to no target; declare it in a CMakeLists.txt")
    continue()
  endif()
  set(allowed "")
  foreach(target IN LISTS owners_${self_dir})
    list(APPEND allowed ${reach_${target}})
  endforeach()
  get_filename_component(here "${file}" DIRECTORY)
  file(STRINGS "${file}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*[\"<]")
  foreach(line IN LISTS includes)
    string(REGEX REPLACE "^[ \t]*#[ \t]*include[ \t]*[\"<]([^\">]+)[\">].*" "\\1" header "${line}")
    set(resolved "")
    foreach(base "${here}" "${ROOT}/src" "${ROOT}")
      if(EXISTS "${base}/${header}" AND NOT IS_DIRECTORY "${base}/${header}")
        get_filename_component(resolved "${base}/${header}" REALPATH)
        break()
      endif()
    endforeach()
    if(resolved STREQUAL "")
      continue()
    endif()
    math(EXPR checked "${checked} + 1")
    owning_dir("${resolved}" header_dir)
    if(header_dir STREQUAL self_dir)
      continue()
    endif()
    set(ok FALSE)
    foreach(target IN LISTS owners_${header_dir})
      if(target IN_LIST allowed)
        set(ok TRUE)
      endif()
    endforeach()
    if(NOT ok)
      if(header_dir STREQUAL "")
        set(what "a file that belongs to no target")
      else()
        string(REPLACE ";" ", " what "${owners_${header_dir}}")
      endif()
      string(REPLACE ";" ", " mine "${owners_${self_dir}}")
      string(APPEND violations
        "\n  ${rel}: includes ${header} (${what}), which ${mine} does not link")
    endif()
  endforeach()
endforeach()

if(violations)
  message(FATAL_ERROR "includes the link graph does not declare:${violations}")
endif()
message(STATUS "${checked} includes agree with the declared link graph")
