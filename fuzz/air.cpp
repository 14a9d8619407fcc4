// What the air takes from its user, and from programs that other bricks run: rules for faults, names of callers, and
// service queries. The first byte says which.
#include "fuzz/fuzz.h"
#include "sim/internals.h"

#include <cstring>
#include <sys/un.h>

namespace {

void Try_Rules(const std::string& rules)
{
    const std::string wrong = tav_air::Add_Faults(rules);
    tav_air::Clear_Faults();
    if (rules.find_first_not_of(' ') == std::string::npos) Expect(wrong.empty(), "no rule is no wrong rule");
    if (!wrong.empty()) Expect(wrong.find('\'') != std::string::npos, "what is wrong is quoted");
}

void Try_Caller(const std::string& name)
{
    sockaddr_un address{};
    const std::size_t size = std::min(name.size(), sizeof(address.sun_path));
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, name.data(), size);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size);
    const std::string caller = tav_air::Parse_Client(reinterpret_cast<const sockaddr*>(&address), length);
    Expect(caller.empty() || caller.size() == tav_air::ADDRESS_SIZE, "a caller has an address or none");
}

void Try_Query(const std::string& request)
{
    static const tav_air::S_Brick brick = [] {
        tav_air::S_Brick made;
        made.Services = {
            {"Echo", "says it again", "somebody", 5, 0x1105}, {"", "", "", -1}, {"Long", std::string(900, 'x'), "", 7}};
        return made;
    }();
    const std::string answer = tav_air::Answer_Query(brick, request);
    Expect(answer.size() >= 5 && answer.size() <= 672, "an answer is one PDU");
    const auto byte = [&](std::size_t at) { return static_cast<std::size_t>(static_cast<unsigned char>(answer[at])); };
    Expect(byte(3) * 256 + byte(4) == answer.size() - 5, "a PDU says how long it is");
    if (request.size() >= 3) Expect(answer.compare(1, 2, request, 1, 2) == 0, "an answer is that to the request");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] % 3 == 0) Try_Rules(text);
    if (data[0] % 3 == 1) Try_Caller(text);
    if (data[0] % 3 == 2) Try_Query(text);
    return 0;
}
