# 32-bit x86 Linux on an x86-64 Debian host, with gcc-multilib/g++-multilib:
#   cmake -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-m32.cmake ...
# (the preset ci-m32 does this). The programs run on the host itself where its kernel
# runs 32-bit programs, and under qemu-i386 otherwise (cmake/run32.cmake). Libraries are looked for in the i386 directories and pkg-config modules are
# taken from there only, so that no x86-64 library is picked up by mistake.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)

set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -m32)

# pkg-config (run by pkg_check_modules while configuring) sees i386 modules and
# architecture-independent ones, not the host's.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/i386-linux-gnu/pkgconfig:/usr/lib/pkgconfig:/usr/share/pkgconfig")
