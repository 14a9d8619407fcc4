// The device list file: what was taken from it, written as a scan would, gives the same list again.
#include "bluetooth/constants.h"
#include "fuzz/fuzz.h"

using namespace tav_c_api_impl::bluetooth_constants;
using world::Bt;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) return 0;  // fmemopen opens no empty file
    world::S_World world;
    world.File.assign(reinterpret_cast<const char*>(data), size);
    std::string written;
    Try_In(world, [&](Bt& bt) {
        const bool read = bt.BT_ParseFileDevices();
        Expect(read || bt.m_ScanDevices.empty(), "who lists a device returns true");
        for (const auto& device : bt.m_ScanDevices) {
            Expect(device.Socket == -1 && device.Port == 0, "a device of the file is not connected");
            written += device.Name + '\0' + FIELD_SEPARATOR + device.AddrText + '\0' + RECORD_END;
        }
    });
    if (written.empty()) return 0;
    world.File = written;
    Try_In(world, [&](Bt& bt) {
        Expect(bt.BT_ParseFileDevices(), "a written list is read");
        std::string again;
        for (const auto& device : bt.m_ScanDevices)
            again += device.Name + '\0' + FIELD_SEPARATOR + device.AddrText + '\0' + RECORD_END;
        Expect(again == written, "a written list is read as it was");
    });
    return 0;
}
