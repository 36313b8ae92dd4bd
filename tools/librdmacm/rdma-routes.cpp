// Asks librdmacm for routes, as other programs do. Each line of the input is an address. For each address, prints a
// line with the address and the DLID of the route that rdma_getaddrinfo() finds. Prints "none" instead of the DLID if
// the result has no route, and "failed" if rdma_getaddrinfo() fails.
#include <cstdio>
#include <iostream>
#include <string>

#include <arpa/inet.h>
#include <infiniband/sa.h>
#include <rdma/rdma_cma.h>

namespace
{

std::string route_to(const std::string& address)
{
    rdma_addrinfo hints{};
    hints.ai_port_space = RDMA_PS_TCP;
    rdma_addrinfo* result = nullptr;
    constexpr const char* port = "7471"; // rdma_getaddrinfo() needs one; the value does not matter
    if (rdma_getaddrinfo(address.c_str(), port, &hints, &result) != 0) {
        std::perror("rdma_getaddrinfo");
        return "failed";
    }
    const auto* path = static_cast<const ibv_path_data*>(result->ai_route);
    const std::string route = path ? "DLID " + std::to_string(ntohs(path->path.dlid)) : "none";
    rdma_freeaddrinfo(result);
    return route;
}

} // namespace

int main()
{
    std::string address;
    while (std::getline(std::cin, address)) std::cout << address << ' ' << route_to(address) << std::endl;
}
