# 32-bit x86 on a 64-bit machine: g++ -m32 with the libraries that script/fetch-i386 unpacked.
cmake_path(SET i386_root NORMALIZE "${CMAKE_CURRENT_LIST_DIR}/../build/i386-packages/root")
set(i386_libraries "${i386_root}/usr/lib/i386-linux-gnu")
if(NOT EXISTS "${i386_libraries}")
  message(FATAL_ERROR "There are no 32-bit libraries in ${i386_root}; run script/fetch-i386")
endif()

set(CMAKE_CXX_COMPILER g++)
set(CMAKE_CXX_FLAGS_INIT "-m32 -march=i686")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${i386_root}/usr/include" "${i386_root}/usr/include/i386-linux-gnu")

set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
set(CMAKE_FIND_ROOT_PATH "${i386_root}")
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${i386_root}")
set(ENV{PKG_CONFIG_LIBDIR} "${i386_libraries}/pkgconfig")

# As DT_RPATH a program's search path also holds for what its libraries need; as DT_RUNPATH it would not.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--disable-new-dtags")
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
set(CMAKE_INSTALL_RPATH "${i386_libraries}" "${i386_root}/lib/i386-linux-gnu")
