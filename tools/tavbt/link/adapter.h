// This brick's own adapter, of which the module tells nothing.
#pragma once

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <optional>

namespace tavbt {

// The adapter that the module takes; if none is switched on, the first that is there.
std::optional<hci_dev_info> Find_Adapter();

bool Has(const hci_dev_info& adapter, unsigned int flag);

bool Has_Adapter();  // that is switched on

}  // namespace tavbt
