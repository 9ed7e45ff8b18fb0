# Cross build with Debian's cross compilers, each program run under qemu-user:
#   -DCMAKE_TOOLCHAIN_FILE=<this file> -DVEK_CROSS_ARCH=arm64|armhf -DVEK_SYSROOT=<dir>
# <dir> holds the target's Android libraries, zlib and GoogleTest unpacked from their Debian
# packages (tools/run_cross_tests.sh makes it); the C and C++ runtimes are the cross
# toolchain's, under /usr/<triplet>.
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEK_CROSS_ARCH VEK_SYSROOT)
set(CMAKE_SYSTEM_NAME Linux)
if(VEK_CROSS_ARCH STREQUAL "arm64")
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(VEK_TRIPLET aarch64-linux-gnu)
  set(VEK_QEMU qemu-aarch64-static)
elseif(VEK_CROSS_ARCH STREQUAL "armhf")
  set(CMAKE_SYSTEM_PROCESSOR arm)
  set(VEK_TRIPLET arm-linux-gnueabihf)
  set(VEK_QEMU qemu-arm-static)
  # 64-bit file offsets; time_t stays 32-bit, as on 32-bit Android.
  set(CMAKE_C_FLAGS_INIT -D_FILE_OFFSET_BITS=64)
  set(CMAKE_CXX_FLAGS_INIT -D_FILE_OFFSET_BITS=64)
else()
  message(FATAL_ERROR "VEK_CROSS_ARCH must be arm64 or armhf")
endif()
if(NOT IS_DIRECTORY "${VEK_SYSROOT}")
  message(FATAL_ERROR "VEK_SYSROOT must name the unpacked target packages")
endif()

set(CMAKE_C_COMPILER ${VEK_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VEK_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${VEK_TRIPLET})
# Libraries, headers and packages from the sysroot only; programs (lnav, gzip) from the host.
set(CMAKE_FIND_ROOT_PATH ${VEK_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# zlib's runtime library is in <sysroot>/lib: the linker follows libvek_log_record's need for it.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link,${VEK_SYSROOT}/lib/${VEK_TRIPLET})
# The loader comes from the toolchain's prefix, zlib and the Android libraries from the sysroot.
set(CMAKE_CROSSCOMPILING_EMULATOR ${VEK_QEMU} -L /usr/${VEK_TRIPLET} -E
    LD_LIBRARY_PATH=${VEK_SYSROOT}/lib/${VEK_TRIPLET}:${VEK_SYSROOT}/usr/lib/${VEK_TRIPLET}/android)
