#include "faults.h"

namespace clhsim {

void set_fault(FaultTable &faults, std::string_view service, FaultKind kind, Fault fault)
{
    faults[{std::string(service), kind}] = fault;
}

void clear_faults(FaultTable &faults, std::string_view service)
{
    std::erase_if(faults, [&](const auto &row) { return service == "*" || row.first.first == service; });
}

std::optional<int64_t> strike(FaultTable &faults, std::string_view service, FaultKind kind)
{
    if (faults.empty())
        return {};
    auto row = faults.find({std::string(service), kind});
    // "SERVICE@GROUP" stands for one group of the service; what is set for all of it holds there too.
    if (size_t at = service.rfind('@'); row == faults.end() && at != service.npos)
        row = faults.find({std::string(service.substr(0, at)), kind});
    if (row == faults.end())
        row = faults.find({"*", kind});
    if (row == faults.end())
        return {};
    int64_t value = row->second.value;
    if (row->second.left > 0 && --row->second.left == 0)
        faults.erase(row);
    return value;
}

}  // namespace clhsim
