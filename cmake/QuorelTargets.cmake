# Project-wide compile flags live on one interface target so that every library, test and
# benchmark gets the same warnings and sanitizer settings.
add_library(quorel_build_flags INTERFACE)
target_compile_options(quorel_build_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
  -Wimplicit-fallthrough -Wcast-qual -Wformat=2)
if(QUOREL_WERROR)
  target_compile_options(quorel_build_flags INTERFACE -Werror)
  # g++ 12's flow analysis at -O2 and above reports std::optional payloads as possibly
  # uninitialised, inlined string copies as overlapping and inlined vector code as out of
  # bounds, where no such path exists; these stay warnings so that a real one is still seen.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(quorel_build_flags INTERFACE
      -Wno-error=maybe-uninitialized -Wno-error=restrict -Wno-error=array-bounds
      -Wno-error=stringop-overflow -Wno-error=stringop-overread)
  endif()
endif()

if(QUOREL_SANITIZE STREQUAL "address")
  set(_quorel_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(QUOREL_SANITIZE STREQUAL "thread")
  set(_quorel_san -fsanitize=thread -fno-omit-frame-pointer)
  # Asio uses std::atomic_thread_fence, which g++ warns ThreadSanitizer cannot see; Asio's
  # fences pair with atomics TSan does track, so the warning is noise here, not a race.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(quorel_build_flags INTERFACE -Wno-tsan)
  endif()
elseif(NOT QUOREL_SANITIZE STREQUAL "")
  message(FATAL_ERROR "QUOREL_SANITIZE must be empty, 'address' or 'thread', not '${QUOREL_SANITIZE}'")
endif()
if(_quorel_san)
  target_compile_options(quorel_build_flags INTERFACE ${_quorel_san})
  target_link_options(quorel_build_flags INTERFACE ${_quorel_san})
endif()

# quorel_library(<name> SOURCES ... DEPS ...)
# Declares the static library quorel_<name>. DEPS are the only libraries it may use; the
# architecture test checks that its #includes agree.
function(quorel_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(quorel_${name} STATIC ${ARG_SOURCES})
  target_include_directories(quorel_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(quorel_${name} PUBLIC ${ARG_DEPS} PRIVATE quorel_build_flags ${ARG_PRIVATE_DEPS})
endfunction()

# quorel_platform_library(<name> SOURCES ... DEPS ...): platform adapters are included as
# "platform/<machine>/file.hpp", so only programs and tests that link them can see them.
function(quorel_platform_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(quorel_${name} STATIC ${ARG_SOURCES})
  target_include_directories(quorel_${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(quorel_${name} PUBLIC ${ARG_DEPS} PRIVATE quorel_build_flags ${ARG_PRIVATE_DEPS})
endfunction()

# quorel_test(<name> SOURCES ... DEPS ... [THREADED])
# One GoogleTest binary per library. THREADED marks binaries whose tests run real threads, so
# the ThreadSanitizer pass picks them up with `ctest -L threaded`.
function(quorel_test name)
  cmake_parse_arguments(ARG "THREADED" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES} ${PROJECT_SOURCE_DIR}/tests/support/quiet_logs.cpp)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} quorel_core quorel_build_flags GTest::gmock
    GTest::gtest_main)
  set(_label unit)
  if(ARG_THREADED)
    set(_label threaded)
  endif()
  gtest_discover_tests(${name}
    PROPERTIES LABELS ${_label}
    DISCOVERY_TIMEOUT 60
    TEST_PREFIX "${name}.")
endfunction()

function(quorel_benchmark name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} quorel_build_flags benchmark::benchmark)
endfunction()
