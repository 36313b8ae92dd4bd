// Preloaded before libibumad, does to a program what a broken HCA would. The file that BROKEN_UMAD names holds what:
// "short" cuts the next SA answer, "stray" makes it answer another request, "request" makes it one (each once), and
// "gone" takes the device away, and "deaf" lets nothing be read, for as long as the file says so.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "host/fabric/umad/libibumad.h"
#include "mad.h"

namespace
{

std::string fault()
{
    const char* path = std::getenv("BROKEN_UMAD");
    const int file = path ? open(path, O_RDONLY) : -1;
    char text[16] = {};
    const ssize_t length = file >= 0 ? read(file, text, sizeof text - 1) : 0;
    if (file >= 0) close(file);
    return {text, length > 0 ? static_cast<size_t>(length) : 0};
}

void mend()
{
    close(open(std::getenv("BROKEN_UMAD"), O_WRONLY | O_TRUNC));
}

template <class function_t>
function_t* real(const char* name)
{
    return reinterpret_cast<function_t*>(dlsym(RTLD_NEXT, name));
}

int fail()
{
    errno = EIO;
    return -EIO;
}

} // namespace

#define PRELOADED extern "C" __attribute__((visibility("default")))

PRELOADED int umad_open_port(const char* name, int port)
{
    return fault() == "gone" ? fail() : real<decltype(umad_open_port)>("umad_open_port")(name, port);
}

PRELOADED int umad_send(int port, int agent, void* umad, int length, int timeout_ms, int retries)
{
    const std::string wanted = fault();
    if (wanted == "gone") return fail();
    if (wanted == "deaf") return 0; // sent to nobody: under ibsim no answer may be on its way when a program ends
    return real<decltype(umad_send)>("umad_send")(port, agent, umad, length, timeout_ms, retries);
}

PRELOADED int umad_recv(int port, void* umad, int* length, int timeout_ms)
{
    const std::string wanted = fault();
    if (wanted == "gone" || wanted == "deaf") return fail();
    const int agent = real<decltype(umad_recv)>("umad_recv")(port, umad, length, timeout_ms);
    auto* mad = static_cast<mad_hdr_t*>(umad_get_mad(umad));
    if (agent < 0 || wanted.empty() || mad->mgt_class != MAD_CLASS_SUBN_ADM) return agent;
    mend();
    if (wanted == "short") *length = 40;
    if (wanted == "stray") mad->transact_id.bytes[7] ^= 0x40;
    if (wanted == "request") mad->m.r = 0;
    return agent;
}
