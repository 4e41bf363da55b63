# Cross build for the head unit: Debian's compiler, and the libraries that tools/fetch-guest.sh unpacked into .cache.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

get_filename_component(guest_root "${CMAKE_CURRENT_LIST_DIR}/../../.cache/arm64" ABSOLUTE)
if(NOT EXISTS "${guest_root}/usr/lib/aarch64-linux-gnu")
  message(FATAL_ERROR "nothing in ${guest_root}: run tools/fetch-guest.sh first")
endif()

# The C and C++ libraries' headers come with the cross compiler; from the cache come the others, found through
# pkg-config, which sees the cache only.
set(CMAKE_FIND_ROOT_PATH "${guest_root}" /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${guest_root}")
set(ENV{PKG_CONFIG_LIBDIR} "${guest_root}/usr/lib/aarch64-linux-gnu/pkgconfig:${guest_root}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The cached libraries need one another when a program is linked.
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-L${guest_root}/usr/lib/aarch64-linux-gnu -Wl,-rpath-link,${guest_root}/usr/lib/aarch64-linux-gnu")
