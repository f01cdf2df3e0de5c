# Cross-builds with Debian's compiler for the architecture whose file (armhf.cmake, arm64.cmake) includes this one, against
# a folder of Debian's packages, which scripts/sysroot.sh makes. Another folder: -DCMAKE_SYSROOT=FOLDER.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi") # no notes that GCC 7 changed how some templates are called

if(NOT CMAKE_SYSROOT)
    get_filename_component(CMAKE_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot/${architecture}" ABSOLUTE)
endif()
if(NOT EXISTS "${CMAKE_SYSROOT}/usr/include")
    message(FATAL_ERROR "There is no sysroot in ${CMAKE_SYSROOT}: scripts/sysroot.sh ${architecture} makes it.")
endif()

# Libraries, headers and packages come from the sysroot alone, programs from this machine alone.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR} "${CMAKE_SYSROOT}/usr/lib/${triplet}/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The linker of another machine does not follow the run paths of the libraries that it links.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${CMAKE_BINARY_DIR}/components/trace")
