# AArch64, the platform's processor, by Debian's cross compiler; what is built runs under QEMU's user
# emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/aarch64-linux-gnu)
# Of this machine's packages only headers are used: they serve every processor.
set(CMAKE_PREFIX_PATH /usr/lib/${CMAKE_HOST_SYSTEM_PROCESSOR}-linux-gnu/cmake)
