# Cross-build for the TOV board with Debian's crossbuild-essential-ARCH against the sysroot that
# scripts/arm-sysroot ARCH builds. TOV_ARM_ARCH: armhf (ARMv7, hard float) or armel (ARMv5TE and up,
# soft float). Programs built here run on this machine under qemu-arm, with the sysroot as their
# root; QEMU_CPU in the environment picks the processor it emulates.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TOV_ARM_ARCH armhf CACHE STRING "Debian architecture of the board: armhf or armel")
if(TOV_ARM_ARCH STREQUAL "armhf")
  set(_triplet arm-linux-gnueabihf)
elseif(TOV_ARM_ARCH STREQUAL "armel")
  set(_triplet arm-linux-gnueabi)
else()
  message(FATAL_ERROR "TOV_ARM_ARCH must be armhf or armel, not '${TOV_ARM_ARCH}'")
endif()
set(TOV_ARM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/${TOV_ARM_ARCH}-sysroot/root" CACHE PATH "board sysroot")
get_filename_component(TOV_ARM_SYSROOT "${TOV_ARM_SYSROOT}" ABSOLUTE)

set(CMAKE_C_COMPILER ${_triplet}-gcc)
set(CMAKE_CXX_COMPILER ${_triplet}-g++)
set(CMAKE_SYSROOT "${TOV_ARM_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${_triplet})
set(CMAKE_FIND_ROOT_PATH "${TOV_ARM_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(_rpath_link "-Wl,-rpath-link,${TOV_ARM_SYSROOT}/usr/lib/${_triplet} -Wl,-rpath-link,${TOV_ARM_SYSROOT}/lib/${_triplet}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_rpath_link}")

# binfmt_misc is not mounted on the build machines: the emulator is called explicitly.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${TOV_ARM_SYSROOT}")
