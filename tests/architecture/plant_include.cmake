cmake_minimum_required(VERSION 3.25)
# Shows that the check can fail: copies the checked folders, plants an include that the link
# graph does not declare in src/ and another in platform/, and expects the check to name both.
#   cmake -DROOT=<repo> -DGRAPH=<graph> -DWORK=<scratch dir> -DCHECK=<check_includes.cmake> -P ...

file(REMOVE_RECURSE "${WORK}")
foreach(top src platform programs)
  file(COPY "${ROOT}/${top}" DESTINATION "${WORK}")
endforeach()

function(expect_refused label)
  execute_process(COMMAND "${CMAKE_COMMAND}" -DROOT=${WORK} -DGRAPH=${GRAPH} -P "${CHECK}"
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(status EQUAL 0)
    message(FATAL_ERROR "${label}: the check passed a tree with an undeclared include")
  endif()
  foreach(expected IN LISTS ARGN)
    string(FIND "${err}" "${expected}" at)
    if(at EQUAL -1)
      message(FATAL_ERROR "${label}: the check failed without naming ${expected}:\n${err}")
    endif()
  endforeach()
endfunction()

# core links no other library of ours; the sandbox does not link the Linux adapters; a program
# header reached from a library is upward by definition.
file(WRITE "${WORK}/src/core/planted_probe.cpp" "#include \"store/quorel_database.hpp\"\n")
expect_refused("planted in src/core" "src/core/planted_probe.cpp")
file(REMOVE "${WORK}/src/core/planted_probe.cpp")

file(APPEND "${WORK}/platform/sandbox/sandbox_config.cpp"
  "#include \"platform/linux/sysfs_attributes.hpp\"\n")
expect_refused("planted in platform/sandbox" "platform/sandbox/sandbox_config.cpp")

file(WRITE "${WORK}/src/telemetry/planted_relative.hpp" "#include \"../mcp/json_rpc.hpp\"\n")
expect_refused("relative include in src/telemetry" "platform/sandbox/sandbox_config.cpp"
  "src/telemetry/planted_relative.hpp")

file(REMOVE_RECURSE "${WORK}")
message(STATUS "the check refuses every planted include")
