# Corpus replay without libFuzzer. Every fuzz target is built once more with
# the ordinary compiler (and whatever sanitizers the build uses) as
# replay_<target>, linked with fuzz/replay_main.cpp instead of libFuzzer, and
# run by CTest over its committed corpus fuzz/corpus/<target>/ (label
# "fuzz-replay").
#
#   ll_fuzz_replay()               every target that fuzz/CMakeLists.txt lists
#   ll_fuzz_replay(t1 t2 ...)      only those
#
# The sources of each target are read from its ll_fuzz(...) line in
# fuzz/CMakeLists.txt, so the library sources some targets compile into
# themselves come along and a target appended there is replayed without an
# edit here. Linux only (some targets compile POSIX back-ends in).
function(ll_fuzz_replay)
  if(WIN32)
    return()
  endif()
  set(_dir ${PROJECT_SOURCE_DIR}/fuzz)
  file(READ ${_dir}/CMakeLists.txt _text)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_dir}/CMakeLists.txt)
  # Comments out; a list separator in a comment would split the calls.
  string(REGEX REPLACE "#[^\n]*" "" _text "${_text}")
  string(REPLACE ";" " " _text "${_text}")
  string(REGEX MATCHALL "ll_fuzz\\([^)]*\\)" _calls "${_text}")
  # The variables the lines use for their source folders.
  set(_src ${PROJECT_SOURCE_DIR}/src)
  set(_made)
  foreach(_call IN LISTS _calls)
    string(REGEX REPLACE "^ll_fuzz\\([ \t\r\n]*(.*[^ \t\r\n])[ \t\r\n]*\\)$" "\\1" _args "${_call}")
    string(REGEX REPLACE "[ \t\r\n]+" ";" _args "${_args}")
    string(CONFIGURE "${_args}" _args)
    list(POP_FRONT _args _name)
    if(ARGN AND NOT _name IN_LIST ARGN)
      continue()
    endif()
    set(_srcs)
    foreach(_s IN LISTS _args)
      if(NOT IS_ABSOLUTE "${_s}")
        set(_s ${_dir}/${_s})
      endif()
      list(APPEND _srcs ${_s})
    endforeach()
    set(_t replay_${_name})
    add_executable(${_t} ${_dir}/replay_main.cpp ${_srcs})
    target_include_directories(${_t} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tools)
    target_link_libraries(${_t} PRIVATE liblocal)
    add_test(NAME fuzz-replay.${_name} COMMAND ${_t} ${_dir}/corpus/${_name})
    set_tests_properties(fuzz-replay.${_name} PROPERTIES LABELS fuzz-replay TIMEOUT 120
      PASS_REGULAR_EXPRESSION "replay: [1-9][0-9]* inputs")
    list(APPEND _made ${_name})
  endforeach()
  foreach(_want IN LISTS ARGN)
    if(NOT _want IN_LIST _made)
      message(SEND_ERROR "ll_fuzz_replay: no ll_fuzz line for ${_want} in fuzz/CMakeLists.txt")
    endif()
  endforeach()
  # One target that builds every replay program.
  if(_made AND NOT TARGET fuzz_replay)
    list(TRANSFORM _made PREPEND replay_)
    add_custom_target(fuzz_replay)
    add_dependencies(fuzz_replay ${_made})
  endif()
endfunction()
