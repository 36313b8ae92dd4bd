// A library for LD_PRELOAD. It gives every socket that a program makes with socket() a large send buffer. With buffers
// of the default size, ibsim and OpenSM wait for each other for ever when about 550 datagrams are in flight between
// them.
#include <dlfcn.h>
#include <sys/socket.h>

extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol)
{
    constexpr int buffer_bytes = 128 << 20;
    static const auto original = reinterpret_cast<decltype(&::socket)>(dlsym(RTLD_NEXT, "socket"));
    const int descriptor = original(domain, type, protocol);
    // SO_SNDBUFFORCE needs a privilege. Without the privilege, SO_SNDBUF at least doubles the default size.
    if (setsockopt(descriptor, SOL_SOCKET, SO_SNDBUFFORCE, &buffer_bytes, sizeof buffer_bytes) != 0)
        setsockopt(descriptor, SOL_SOCKET, SO_SNDBUF, &buffer_bytes, sizeof buffer_bytes);
    return descriptor;
}
