# Cross-build for the TOV board (ARM, hard float) with Debian's crossbuild-essential-armhf against
# the sysroot that scripts/armhf-sysroot builds. Programs built here run on this machine under
# qemu-arm, with the sysroot as their root.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(TOV_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot/root" CACHE PATH "armhf sysroot")
get_filename_component(TOV_ARMHF_SYSROOT "${TOV_ARMHF_SYSROOT}" ABSOLUTE)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_SYSROOT "${TOV_ARMHF_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH "${TOV_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(_rpath_link "-Wl,-rpath-link,${TOV_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf -Wl,-rpath-link,${TOV_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_rpath_link}")

# binfmt_misc is not mounted on the build machines: the emulator is called explicitly.
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L "${TOV_ARMHF_SYSROOT}")
