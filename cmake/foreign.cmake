# Toolchain for another processor: Debian's cross compiler, and Debian's libraries of that kind, unpacked into a folder.
# script/test-foreign unpacks and builds: cmake --toolchain cmake/foreign.cmake -D VANDREL_TRIPLET=... -D VANDREL_ROOT=...
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VANDREL_TRIPLET VANDREL_ROOT)
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR ${VANDREL_TRIPLET})
string(REPLACE i686 i386 CMAKE_LIBRARY_ARCHITECTURE ${VANDREL_TRIPLET}) # compilers have the one name, folders the other
set(CMAKE_C_COMPILER ${VANDREL_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${VANDREL_TRIPLET}-g++)

set(CMAKE_FIND_ROOT_PATH ${VANDREL_ROOT} /usr/${VANDREL_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} ${VANDREL_ROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VANDREL_ROOT})

# A test sees the host below /.host. VANDREL_ROOT/run/lib is what its program finds as /lib.
set(run_root /.host${VANDREL_ROOT}/run)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL i686) # runs here, but the host lacks its libraries
    set(CMAKE_CROSSCOMPILING_EMULATOR ${run_root}/lib/ld-linux.so.2 --library-path ${run_root}/lib)
else()
    set(CMAKE_CROSSCOMPILING_EMULATOR qemu-${CMAKE_SYSTEM_PROCESSOR}-static -L ${run_root})
endif()
