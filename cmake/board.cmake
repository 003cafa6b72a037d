# The controller board: 32-bit big-endian PowerPC, Debian's cross compiler, run through qemu-user.
#
# TPG_BOARD_SYSROOT (CMake or environment variable) is the folder scripts/board-sysroot.sh
# prepares: the libraries under usr/ as on the board, and the C library under lib/.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)

if(NOT TPG_BOARD_SYSROOT)
  if(DEFINED ENV{TPG_BOARD_SYSROOT})
    set(TPG_BOARD_SYSROOT "$ENV{TPG_BOARD_SYSROOT}")
  elseif(DEFINED ENV{TPG_BOARD_CACHE})
    set(TPG_BOARD_SYSROOT "$ENV{TPG_BOARD_CACHE}/sysroot")
  elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(TPG_BOARD_SYSROOT "$ENV{XDG_CACHE_HOME}/tpg-board/sysroot")
  else()
    set(TPG_BOARD_SYSROOT "$ENV{HOME}/.cache/tpg-board/sysroot")
  endif()
endif()
# In the cache, so that a build tree configures itself again without the environment.
set(TPG_BOARD_SYSROOT "${TPG_BOARD_SYSROOT}" CACHE PATH "The board's libraries")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TPG_BOARD_SYSROOT)
if(NOT EXISTS "${TPG_BOARD_SYSROOT}/lib/ld.so.1")
  message(FATAL_ERROR "No board sysroot at '${TPG_BOARD_SYSROOT}': run scripts/board-sysroot.sh")
endif()

set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

set(CMAKE_FIND_ROOT_PATH "${TPG_BOARD_SYSROOT}" /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# The host's own .pc files would bring the host's libraries in.
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_LIBDIR} "${TPG_BOARD_SYSROOT}/usr/lib/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TPG_BOARD_SYSROOT}")

# The libraries need each other at link time; no run path goes into the programs, since the
# emulator below shows them the sysroot as their root.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-Wl,-rpath-link,${TPG_BOARD_SYSROOT}/usr/lib")
endforeach()
set(CMAKE_SKIP_BUILD_RPATH TRUE)

# By option, not by QEMU_LD_PREFIX or LD_LIBRARY_PATH: native children must not inherit it.
set(CMAKE_CROSSCOMPILING_EMULATOR "qemu-ppc-static;-L;${TPG_BOARD_SYSROOT}")
