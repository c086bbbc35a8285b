# Cross build for Windows with MinGW-w64 (posix thread model: std::thread and
# std::mutex work, and so does GoogleTest).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(_tp i686-w64-mingw32)
set(CMAKE_C_COMPILER ${_tp}-gcc-posix)
set(CMAKE_CXX_COMPILER ${_tp}-g++-posix)
set(CMAKE_RC_COMPILER ${_tp}-windres)
set(CMAKE_MC_COMPILER ${_tp}-windmc)
set(CMAKE_OBJDUMP ${_tp}-objdump)
set(CMAKE_FIND_ROOT_PATH /usr/${_tp})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Every processor that runs a supported Windows has SSE2.
set(CMAKE_C_FLAGS_INIT -msse2)
set(CMAKE_CXX_FLAGS_INIT -msse2)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
