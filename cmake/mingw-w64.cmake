# Cross toolchain for the Windows x64 build (the `windows` preset): Debian's
# mingw-w64 g++ with the win32 thread model. Only the compilers and binutils
# are chosen here; the kernel-driver flags belong to the .sys target
# (windows/CMakeLists.txt), so CMake's own compiler checks still link an
# ordinary console program.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(MME_MINGW_TRIPLET x86_64-w64-mingw32)

# Prefer the win32 thread model; the plain name is whatever alternative is set.
find_program(MME_MINGW_CC NAMES ${MME_MINGW_TRIPLET}-gcc-win32 ${MME_MINGW_TRIPLET}-gcc REQUIRED)
find_program(MME_MINGW_CXX NAMES ${MME_MINGW_TRIPLET}-g++-win32 ${MME_MINGW_TRIPLET}-g++ REQUIRED)
set(CMAKE_C_COMPILER ${MME_MINGW_CC})
set(CMAKE_CXX_COMPILER ${MME_MINGW_CXX})
find_program(CMAKE_RC_COMPILER NAMES ${MME_MINGW_TRIPLET}-windres)
find_program(MME_DLLTOOL NAMES ${MME_MINGW_TRIPLET}-dlltool REQUIRED)
find_program(MME_OBJDUMP NAMES ${MME_MINGW_TRIPLET}-objdump REQUIRED)
find_program(MME_OBJCOPY NAMES ${MME_MINGW_TRIPLET}-objcopy REQUIRED)

set(CMAKE_FIND_ROOT_PATH /usr/${MME_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
