// Stands in for real ports in a build without libibumad.
#include "host/fabric/umad/record-list.h"
#include "host/fabric/umad/umad.h"

namespace umad
{

namespace
{

const char* const not_built = "this ats was built without libibumad and knows no real fabric: install libibumad-dev "
                              "and build it anew";

} // namespace

bool is_infiniband(const port_listing&)
{
    return false;
}

bool is_available()
{
    return false;
}

listing list_hcas()
{
    return {.hcas = {}, .why = not_built};
}

std::string try_port(const std::string&, int)
{
    return not_built;
}

opened open(exec::executor&, const options&)
{
    return {nullptr, not_built};
}

opened_sa_client open_sa_client(const std::string&, int)
{
    return {nullptr, not_built};
}

record_list list_records(sa_client&, const record_filter&)
{
    return {.records = {}, .remarks = {}, .why = not_built};
}

} // namespace umad
