# Toolchain file: Debian's cross compiler for arm64 (g++-aarch64-linux-gnu).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH) # Debian has libraries of both kinds: a cross compiler's, and the system's
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
