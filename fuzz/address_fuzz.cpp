// The address list of the environment.
#include "session/address.h"

#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text((const char *)data, size);
    address_group *groups = nullptr;
    int count = _parse_addr_string(text.c_str(), &groups);
    if (count >= 0 && groups != nullptr)
        _free_addr_pairs(count == 0 ? 1 : count, groups);
    return 0;
}
