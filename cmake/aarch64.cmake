# Compiles for aarch64 on another machine, with Debian's cross compiler (g++-aarch64-linux-gnu), and runs programs in qemu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc) # GoogleTest needs a C compiler
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/aarch64-linux-gnu)
# scripts/fetch-aarch64-libraries puts Boost.Context for aarch64 into this folder.
set(CMAKE_LIBRARY_PATH ${CMAKE_CURRENT_LIST_DIR}/../build/aarch64-libraries/usr/lib/aarch64-linux-gnu)
