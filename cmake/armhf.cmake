# 32-bit ARM Linux (hard float).
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(architecture armhf)
set(triplet arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
