// The walk over service records, as their bytes come from a device. What is not built of whole attributes is left out:
// on some of it libbluetooth itself loops or crashes.
#include "fuzz/fuzz.h"

#include <bluetooth/sdp.h>

using world::Bt;

namespace {

constexpr int MAX_DEPTH = 8;

// The size of the data element at `at`, all of whose bytes are there; 0: there is none.
std::size_t Get_ElementSize(const std::string& bytes, std::size_t at, int depth)
{
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
    const std::size_t left = bytes.size() - at;
    if (left == 0 || depth > MAX_DEPTH) return 0;
    const unsigned int type = byte(at) >> 3U, code = byte(at) & 7U;
    std::size_t head = 1, value = type == 0 ? 0 : std::size_t{1} << code;
    if (code > 4) {
        head += std::size_t{1} << (code - 5);
        if (left < head) return 0;
        value = 0;
        for (std::size_t i = 1; i < head; ++i)
            value = value << 8U | byte(at + i);
    }
    const bool isText = type == 4 || type == 8, isList = type == 6 || type == 7, isUuid = type == 3;
    if (type > 8 || (code > 4) != (isText || isList) || value > left - head) return 0;
    if (type == 0 && code != 0) return 0;
    if (type == 5 && code != 0) return 0;
    if (isUuid && value != 2 && value != 4 && value != 16) return 0;
    for (std::size_t inner = at + head, end = inner + value; isList && inner < end;) {
        const std::size_t size = Get_ElementSize(bytes.substr(0, end), inner, depth + 1);
        if (size == 0) return 0;
        inner += size;
    }
    return head + value;
}

// A list of attributes, each an id of two bytes and a value.
bool Is_Record(const std::string& record)
{
    if (static_cast<unsigned char>(record[0]) >> 3U != 6) return false;
    std::size_t at = 1 + (record[0] == 0x35 ? 1 : record[0] == 0x36 ? 2 : 4);
    while (at < record.size()) {
        const std::size_t id = Get_ElementSize(record, at, 0);
        const std::size_t value = Get_ElementSize(record, at + id, 0);
        if (record[at] != 0x09 || value == 0) return false;
        at += id + value;
    }
    return true;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    world::S_World world;
    for (std::size_t at = 0, next = 0; (next = Get_ElementSize(bytes, at, 0)) > 0; at += next)
        if (const std::string record = bytes.substr(at, next); Is_Record(record)) world.Records.push_back(record);
    Try_In(world, [&](Bt& bt) {
        bt.Add_BT_Device("A", "06:05:04:03:02:01", -1, 0);
        const int count = bt.Get_BT_Services_Count("A");
        Expect(count == static_cast<int>(world.Records.size()), "each record has a summary");
        std::string text;
        int port = 0;
        for (unsigned int i = 0; i < static_cast<unsigned int>(count); ++i) {
            Expect(bt.Get_BT_Services_Name(i, text) && text.size() < 512, "a name fits its buffer");
            Expect(bt.Get_BT_Services_Description(i, text) && text.size() < 512, "a description fits its buffer");
            Expect(bt.Get_BT_Services_Provider(i, text) && text.size() < 512, "a provider fits its buffer");
            Expect(bt.Get_BT_Services_PortRFCOMM(i, port), "a summary has a channel");
        }
    });
    return 0;
}
