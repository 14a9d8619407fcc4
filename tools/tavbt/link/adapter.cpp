#include "tools/tavbt/link/adapter.h"

#include <algorithm>
#include <bluetooth/hci_lib.h>

namespace tavbt {

std::optional<hci_dev_info> Find_Adapter()
{
    constexpr int MAX_ADAPTERS = 16;
    const int taken = hci_get_route(nullptr);
    for (int id = std::max(taken, 0); id < MAX_ADAPTERS; ++id) {
        hci_dev_info info{};
        if (hci_devinfo(id, &info) == 0) return info;
    }
    return std::nullopt;
}

bool Has(const hci_dev_info& adapter, unsigned int flag)
{
    return (adapter.flags >> flag & 1U) != 0;
}

bool Has_Adapter()
{
    const auto adapter = Find_Adapter();
    return adapter && Has(*adapter, HCI_UP);
}

}  // namespace tavbt
