// The five readers: nothing is returned that was not received, nothing is changed by a failure, a large request reads
// as one that fits the fixed buffer, and over a socket pair it is all the same.
#include "api/tav_c_api.h"
#include "bluetooth/constants.h"
#include "fuzz/fuzz.h"

#include <sys/socket.h>
#include <unistd.h>

using namespace tav_c_api_impl::bluetooth_constants;
using world::Bt;

namespace {

using TextReader = int (Bt::*)(int, const std::string&, const std::string&, std::string&, unsigned int, unsigned long);
using BoolReader = bool (Bt::*)(int, const std::string&, const std::string&, bool&, unsigned long);

const struct
{
    TextReader Read;
    unsigned int FixedLimit;
    const char* AfterFailure;
} TEXT_READERS[] = {
    {&Bt::_ReadMsg_TAV_String, FIXED_TEXT_LIMIT, "before"},
    {&Bt::_ReadMsg_TAV_Data, FIXED_DATA_LIMIT, ""},
    {&Bt::_ReadMsg_TAVOrg_String, FIXED_CLASSIC_TEXT_LIMIT, "before"},
};
constexpr BoolReader BOOL_READERS[] = {&Bt::_ReadMsg_TAV_Bool, &Bt::_ReadMsg_TAVOrg_Bool};

const std::string SENDER = "AB", ID = "abc";

// Two connected sockets; what was put in is there for one reader, and gone for the next.
class C_Wire
{
public:
    C_Wire() { Expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, m_Ends) == 0, "there are sockets"); }
    int Get_End() const { return m_Ends[0]; }
    void Put(const std::string& bytes)
    {
        char rest[4096];
        while (read(m_Ends[0], rest, sizeof(rest)) > 0) {
        }
        const auto size = static_cast<ssize_t>(bytes.size());
        Expect(write(m_Ends[1], bytes.data(), bytes.size()) == size, "they take a message");
    }

private:
    int m_Ends[2];
};

// What all readers do with the bytes, in one text.
std::string Read_All(const std::string& bytes, C_Wire* wire)
{
    world::S_World world;
    world.Incoming = bytes;
    world.Wire = wire ? wire->Get_End() : -1;
    const int socket = wire ? world.Wire : 9;
    std::string all;
    Try_In(world, [&](Bt& bt) {
        const auto put = [&] {
            const world::S_Outside outside;
            if (wire) wire->Put(bytes);
        };
        for (const auto& reader : TEXT_READERS) {
            std::string results[2];
            for (const unsigned int beyond : {0U, 1U}) {
                put();
                const unsigned int maxSize = reader.FixedLimit + beyond;
                std::string out = "before";
                const int result = (bt.*reader.Read)(socket, SENDER, ID, out, maxSize, 0);
                if (result < 0)
                    Expect(result == -1 && out == reader.AfterFailure, "a failure leaves the output as it is");
                else
                    Expect(static_cast<std::size_t>(result) == out.size() && bytes.find(out) != std::string::npos,
                           "what is returned was received");
                results[beyond] = std::to_string(result) + out;
                all += results[beyond] + ";";
            }
            Expect(bytes.size() >= reader.FixedLimit || results[0] == results[1], "both kinds of buffer give the same");
        }
        for (const BoolReader read : BOOL_READERS) {
            bool values[] = {false, true};
            put();
            const bool first = (bt.*read)(socket, SENDER, ID, values[0], 0);
            put();
            const bool second = (bt.*read)(socket, SENDER, ID, values[1], 0);
            Expect(first == second && (values[0] == values[1]) == first, "a value is changed by success alone");
            all += first ? values[0] ? "true;" : "false;" : "-;";
        }
    });
    return all;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static C_Wire wire;
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    tav_c_api::g_isLog_Quorvant_TAV = size % 2 == 0;
    const std::string results = Read_All(bytes, nullptr);
    // Without bytes there is nothing to wait for.
    Expect(bytes.empty() || results == Read_All(bytes, &wire), "over sockets it is the same");
    return 0;
}
