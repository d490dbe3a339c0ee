# Cross build for the controller's CPU class: 32-bit ARM, hard-float ABI (arm-linux-gnueabihf),
# with Debian's cross compiler (g++-arm-linux-gnueabihf). Programs built here run on the build
# machine under qemu-arm (Debian's qemu-user); CTest and gtest_discover_tests go through
# CMAKE_CROSSCOMPILING_EMULATOR.
#
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#         -DTVX_ARMHF_DEPS=<folder>
#
# TVX_ARMHF_DEPS is a folder holding the armhf builds of the libraries the project links
# (libfreeipmi and its libgcrypt, GoogleTest) and nlohmann-json, unpacked from Debian's armhf
# packages as a root file system (usr/lib/arm-linux-gnueabihf, usr/include, ...).
# scripts/armhf.sh fills it without installing anything for armhf on the build machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(TVX_ARMHF_TRIPLET arm-linux-gnueabihf)

set(CMAKE_C_COMPILER ${TVX_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TVX_ARMHF_TRIPLET}-g++)
# GCC notes on ARM that the passing of some standard-library types changed in GCC 7.1: it
# concerns mixing objects from compilers before and after that change, never the case here.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# The toolchain file is read again for every try_compile: carry the folder over.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TVX_ARMHF_DEPS)
if(NOT TVX_ARMHF_DEPS AND DEFINED ENV{TVX_ARMHF_DEPS})
  set(TVX_ARMHF_DEPS "$ENV{TVX_ARMHF_DEPS}")
endif()

set(TVX_ARMHF_C_LIBRARY /usr/${TVX_ARMHF_TRIPLET})
set(CMAKE_FIND_ROOT_PATH ${TVX_ARMHF_C_LIBRARY})
set(TVX_ARMHF_LIBPATH "")
if(TVX_ARMHF_DEPS)
  list(APPEND CMAKE_FIND_ROOT_PATH "${TVX_ARMHF_DEPS}")
  set(TVX_ARMHF_LIBPATH "${TVX_ARMHF_DEPS}/usr/lib/${TVX_ARMHF_TRIPLET}:${TVX_ARMHF_DEPS}/lib/${TVX_ARMHF_TRIPLET}")
  # The linker resolves the unpacked libraries' own dependencies (libfreeipmi's libgcrypt)
  # from the same folder.
  foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT
        "-Wl,-rpath-link,${TVX_ARMHF_DEPS}/usr/lib/${TVX_ARMHF_TRIPLET}:${TVX_ARMHF_DEPS}/lib/${TVX_ARMHF_TRIPLET}")
  endforeach()
  # pkg-config reads only the armhf packages' files and prefixes their paths with the folder.
  set(ENV{PKG_CONFIG_LIBDIR} "${TVX_ARMHF_DEPS}/usr/lib/${TVX_ARMHF_TRIPLET}/pkgconfig:${TVX_ARMHF_DEPS}/usr/share/pkgconfig")
  set(ENV{PKG_CONFIG_SYSROOT_DIR} "${TVX_ARMHF_DEPS}")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# binfmt_misc is not relied on: every armhf program is started through qemu-arm, with the
# armhf C library's folder as its root for the loader and the unpacked libraries on the
# loader's path. A program a test starts itself is started the same way (tests/support).
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${TVX_ARMHF_C_LIBRARY})
if(TVX_ARMHF_LIBPATH)
  list(APPEND CMAKE_CROSSCOMPILING_EMULATOR -E "LD_LIBRARY_PATH=${TVX_ARMHF_LIBPATH}")
endif()
