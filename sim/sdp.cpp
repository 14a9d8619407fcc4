// The SDP server of a brick: one answer for each request, over as many PDUs as it takes.
#include "sim/internals.h"

#include <algorithm>
#include <bluetooth/sdp.h>
#include <bluetooth/sdp_lib.h>

namespace tav_air {

namespace {

constexpr std::size_t FIRST_HANDLE_OF_RECORD = 0x10000;
constexpr std::size_t MAX_PART = 600;  // of an answer in one PDU, which fits L2CAP's default

// ---- Data elements: a type with its size or the size's width, the size, the value -----------------------------------

std::string Number(std::size_t value, int width = 2)
{
    std::string bytes;
    for (int at = width - 1; at >= 0; --at)
        bytes += static_cast<char>(value >> (8 * at));
    return bytes;
}

std::string Sequence(const std::string& elements)
{
    return "\x36" + Number(elements.size()) + elements;
}

// Reads bytes one after the other; what is not there is 0, and then it is not Good.
struct S_Reader
{
    std::string Bytes;
    std::size_t At = 0;
    bool IsGood = true;

    std::size_t Take_Number(std::size_t width)
    {
        std::size_t value = 0;
        for (const char byte : Take(width))
            value = value << 8U | static_cast<unsigned char>(byte);
        return value;
    }
    std::string Take(std::size_t size)
    {
        IsGood = IsGood && size <= Bytes.size() - At;
        if (!IsGood) return "";
        At += size;
        return Bytes.substr(At - size, size);
    }
    bool Has_More() const { return IsGood && At < Bytes.size(); }

    // The value of an element, without its type and size.
    std::string Take_Element()
    {
        const std::size_t start = Take_Number(1), index = start & 7U;
        return Take(start < 8 ? 0 : index < 5 ? std::size_t{1} << index : Take_Number(1U << (index - 5)));
    }
};

// All UUIDs are of 128 bits, shorter ones by the base that they have in common.
std::string Get_Full(const std::string& uuid)
{
    static const std::string base("\0\0\x10\0\x80\0\0\x80\x5F\x9B\x34\xFB", 12);
    return uuid.size() == 16 ? uuid : std::string(uuid.size() < 4 ? 4 - uuid.size() : 0, '\0') + uuid + base;
}

// ---- Records --------------------------------------------------------------------------------------------------------

struct S_Record
{
    std::size_t Handle = 0;
    std::map<std::size_t, std::string> Attributes = {};
    std::set<std::string> Uuids = {};
    std::optional<std::string> Given = {};  // in place of all that, and found by every search
};

void Fill_Record(S_Record& record, const S_Service& service)
{
    auto& attributes = record.Attributes;
    const auto uuid = [&](std::uint16_t value) {
        record.Uuids.insert(Get_Full(Number(value)));
        return "\x19" + Number(value);
    };
    attributes[SDP_ATTR_RECORD_HANDLE] = "\x0A" + Number(record.Handle, 4);
    attributes[SDP_ATTR_SVCLASS_ID_LIST] = Sequence(uuid(SERIAL_PORT_SVCLASS_ID));
    if (service.Id != 0) attributes[SDP_ATTR_SERVICE_ID] = uuid(service.Id);
    std::string protocols = service.Channel >= 0 ? Sequence(uuid(L2CAP_UUID)) : "";
    if (service.Channel > 0) protocols += Sequence(uuid(RFCOMM_UUID) + "\x08" + static_cast<char>(service.Channel));
    if (!protocols.empty()) attributes[SDP_ATTR_PROTO_DESC_LIST] = Sequence(protocols);
    attributes[SDP_ATTR_BROWSE_GRP_LIST] = Sequence(uuid(PUBLIC_BROWSE_GROUP));
    attributes[SDP_ATTR_PFILE_DESC_LIST] = Sequence(Sequence(uuid(SERIAL_PORT_PROFILE_ID) + "\x09" + Number(0x0100)));
    const std::pair<std::size_t, std::string> texts[] = {{SDP_ATTR_SVCNAME_PRIMARY, service.Name},
                                                         {SDP_ATTR_SVCDESC_PRIMARY, service.Description},
                                                         {SDP_ATTR_PROVNAME_PRIMARY, service.Provider}};
    for (const auto& [id, text] : texts)
        if (!text.empty()) attributes[id] = "\x26" + Number(text.size()) + text;
}

std::vector<S_Record> List_Records(const S_Brick& brick)
{
    std::vector<S_Record> records;
    for (const S_Service& service : brick.Services) {
        S_Record& record = records.emplace_back(S_Record{FIRST_HANDLE_OF_RECORD + records.size()});
        if (service.Hex.empty()) {
            Fill_Record(record, service);
            continue;
        }
        record.Given = "";
        for (std::size_t i = 0; i + 1 < service.Hex.size(); i += 2)
            *record.Given += static_cast<char>(std::stoi(service.Hex.substr(i, 2), nullptr, 16));
    }
    // What need not make sense comes last.
    std::stable_partition(records.begin(), records.end(), [](const S_Record& record) { return !record.Given; });
    return records;
}

bool Has_All(const S_Record& record, const std::string& wanted)
{
    bool hasAll = true;
    for (S_Reader uuids{wanted}; uuids.Has_More();)
        hasAll = record.Uuids.count(Get_Full(uuids.Take_Element())) > 0 && hasAll;
    return hasAll || record.Given;
}

// A record, less what is not in one of the ranges.
std::string Choose(const S_Record& record, const std::string& ranges)
{
    if (record.Given) return *record.Given;
    std::map<std::size_t, std::string> chosen;
    for (S_Reader wanted{ranges}; wanted.Has_More();) {
        const std::string range = wanted.Take_Element();
        S_Reader limits{range};
        const std::size_t first = limits.Take_Number(2), last = range.size() == 4 ? limits.Take_Number(2) : first;
        for (const auto& [id, value] : record.Attributes)
            if (first <= id && id <= last) chosen[id] = "\x09" + Number(id) + value;
    }
    std::string attributes;
    for (const auto& attribute : chosen)
        attributes += attribute.second;
    return Sequence(attributes);
}

// ---- PDUs -----------------------------------------------------------------------------------------------------------

std::string Build_Pdu(std::uint8_t id, const std::string& transaction, const std::string& parameters)
{
    return static_cast<char>(id) + transaction + Number(parameters.size()) + parameters;
}

}  // namespace

std::string Answer_Query(const S_Brick& brick, const std::string& request)
{
    S_Reader reader{request};
    const auto id = static_cast<std::uint8_t>(reader.Take_Number(1));
    std::string transaction = reader.Take(2);
    transaction.resize(2);
    reader.Take_Number(2);
    const bool isSearch = id == SDP_SVC_SEARCH_REQ, isOfOne = id == SDP_SVC_ATTR_REQ;
    if (!isSearch && !isOfOne && id != SDP_SVC_SEARCH_ATTR_REQ)
        return Build_Pdu(SDP_ERROR_RSP, transaction, Number(SDP_INVALID_SYNTAX));
    const std::string wanted = isOfOne ? "" : reader.Take_Element();
    const std::size_t handle = isOfOne ? reader.Take_Number(4) : 0, most = reader.Take_Number(2);
    const std::string ranges = isSearch ? "" : reader.Take_Element();
    std::string all;  // what is asked for, of which a part goes into this PDU
    std::size_t count = 0;
    for (const S_Record& record : List_Records(brick)) {
        if (isOfOne ? record.Handle != handle : !Has_All(record, wanted) || (isSearch && count == most)) continue;
        all += isSearch ? Number(record.Handle, 4) : Choose(record, ranges);
        ++count;
    }
    if (isOfOne && count == 0) return Build_Pdu(SDP_ERROR_RSP, transaction, Number(SDP_INVALID_RECORD_HANDLE));
    if (!isSearch && !isOfOne) all = Sequence(all);
    // How far the parts before this one went is told by who asks for the next.
    const std::size_t state = reader.Take_Number(1), from = state == 0 ? 0 : reader.Take_Number(2);
    if (!reader.IsGood || (state != 0 && state != 2) || from > all.size())
        return Build_Pdu(SDP_ERROR_RSP, transaction, Number(SDP_INVALID_SYNTAX));
    const std::size_t size = std::min({all.size() - from, isSearch ? MAX_PART : most, MAX_PART});
    const std::string part = all.substr(from, size);
    const bool isLast = from + size == all.size();
    const std::string counts = isSearch ? Number(count) + Number(size / 4) : Number(size);
    return Build_Pdu(static_cast<std::uint8_t>(id + 1), transaction,
                     counts + part + (isLast ? Number(0, 1) : Number(2, 1) + Number(from + size)));
}

}  // namespace tav_air
