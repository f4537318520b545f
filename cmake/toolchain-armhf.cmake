# Builds for a 32-bit ARM camera with Debian's cross-compiler, g++-arm-linux-gnueabihf. For another processor or a
# firmware's own compiler put its names here. -DCMAKE_FIND_ROOT_PATH=... names the folder with the firmware's headers and
# libraries (usr/include, usr/lib), the only place where they are looked for.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf) # libraries may be in usr/lib/ of this name, too

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
