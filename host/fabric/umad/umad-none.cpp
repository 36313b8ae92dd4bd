// Replaces the other files of this folder in a build without libibumad. Calls that can fail do so with an error that
// says what is missing.
#include "host/fabric/umad/sa-client.h"
#include "host/fabric/umad/umad.h"

namespace umad
{

namespace
{

tl::unexpected<ats::error> not_built()
{
    return ats::fail("this program was built without libibumad and knows no real fabric: install libibumad-dev and "
                     "build it anew");
}

} // namespace

bool is_infiniband(const port_listing&)
{
    return false;
}

bool is_available()
{
    return false;
}

ats::result<std::vector<hca_listing>> list_hcas()
{
    return not_built();
}

ats::result<hca_listing> find_hca(const std::vector<hca_listing>&, const std::string&)
{
    return not_built();
}

ats::result<> try_port(const std::string&, int)
{
    return not_built();
}

ats::result<std::unique_ptr<real_fabric>> open(exec::executor&, const fabric_options&)
{
    return not_built();
}

ats::result<std::unique_ptr<sa_client>> open_sa_client(const std::string&, int)
{
    return not_built();
}

} // namespace umad
