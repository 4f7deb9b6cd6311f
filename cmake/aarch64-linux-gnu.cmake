# 64-bit ARM from any Debian machine: Debian's cross compiler, its arm64 libraries beside the machine's own
# (multiarch), and qemu-user to run what was built. On a machine that is 64-bit ARM itself this is the native build.
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
if(NOT CMAKE_HOST_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    set(CMAKE_SYSTEM_NAME Linux)
    set(CMAKE_SYSTEM_PROCESSOR aarch64)
    set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
    # FindOpenSSL asks pkg-config first, which would answer with this machine's own libraries.
    set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
endif()
