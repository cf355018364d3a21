# Debian's cross compiler for arm64 (g++-aarch64-linux-gnu). What it builds runs under qemu's user
# mode; VINDRA_SYSROOT names a folder with the arm64 libraries that the programs load.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L "${VINDRA_SYSROOT}")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VINDRA_SYSROOT)

# Programs are this machine's own, libraries only those of the other one.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Headers that differ between architectures.
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${VINDRA_SYSROOT}/usr/include/aarch64-linux-gnu")
