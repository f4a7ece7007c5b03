# Builds for 64-bit Arm Linux on another machine, with Debian's cross compiler and the arm64 libraries that stand
# beside the machine's own (multi-arch). `./vex arm64` installs both.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Programs that run during the build (protoc and its gRPC plugin) are this machine's, also where a package's CMake
# files look for them below the arm64 library folder.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(Protobuf_PROTOC_EXECUTABLE /usr/bin/protoc CACHE FILEPATH "")
set(GRPC_CPP_PLUGIN /usr/bin/grpc_cpp_plugin CACHE FILEPATH "")

# pkg-config must not see this machine's own libraries. VEX_ARM64_GSTREAMER is a folder with link names and .pc files
# of the media libraries whose arm64 development package doesn't install beside another architecture's (see
# packaging/arm64/gstreamer.sh).
set(VEX_ARM64_GSTREAMER "${CMAKE_BINARY_DIR}/gstreamer" CACHE PATH "")
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR}
    "${VEX_ARM64_GSTREAMER}/pkgconfig:/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VEX_ARM64_GSTREAMER)

# The emulator that runs the tests. Children that a test starts need it too: see packaging/arm64/emulated.py.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-aarch64-static CACHE FILEPATH "")
