# Cross build for AArch64 Linux with Debian 12's cross compilers (g++-aarch64-linux-gnu). The
# target's libraries come through multiarch (android-liblog-dev:arm64, libgtest-dev:arm64, ...):
# they live in /usr/lib/aarch64-linux-gnu and share /usr/include with the build machine's, so
# there is no separate sysroot. ctest runs the cross-built programs under qemu-user through the
# wrapper beside this file.
#   cmake -S . -B build-aarch64 -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu.cmake
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/qemu-aarch64-run)
