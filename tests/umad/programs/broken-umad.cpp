// A library that a test preloads before libibumad, to break the HCA of a program. The environment variable BROKEN_UMAD
// names a file, which is empty or contains one word, the fault. Three faults change the next answer of the SA and empty
// the file: "short" cuts the answer, "stray" changes its TransactionID, "request" clears its response bit. Two faults
// last until the test changes the file: with "gone", the device is missing; with "deaf", nothing is sent and every
// receive fails.
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
    const std::string current_fault = fault();
    if (current_fault == "gone") return fail();
    // If a program ends while an answer to the program is on its way, ibsim fails. So this fault drops the request.
    if (current_fault == "deaf") return 0;
    return real<decltype(umad_send)>("umad_send")(port, agent, umad, length, timeout_ms, retries);
}

PRELOADED int umad_recv(int port, void* umad, int* length, int timeout_ms)
{
    const std::string current_fault = fault();
    if (current_fault == "gone" || current_fault == "deaf") return fail();
    const int agent = real<decltype(umad_recv)>("umad_recv")(port, umad, length, timeout_ms);
    auto* mad = static_cast<mad_hdr_t*>(umad_get_mad(umad));
    if (agent < 0 || current_fault.empty() || mad->mgt_class != MAD_CLASS_SUBN_ADM) return agent;
    mend();
    if (current_fault == "short") *length = 40;
    if (current_fault == "stray") mad->transact_id.bytes[7] ^= 0x40;
    if (current_fault == "request") mad->m.r = 0;
    return agent;
}
