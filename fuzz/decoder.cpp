// tavbt's decoder: what it says of a message is what the module's readers do with it.
#include "fuzz/fuzz.h"
#include "tools/tavbt/link/format.h"

using namespace tavbt;
using world::Bt;

namespace {

constexpr unsigned int MAX_SIZE = 800;

// Has the reader of the kind that the decoder sees read the message; the value of a bool is one byte. None: it fails.
std::optional<std::string> Read(const std::string& bytes, const S_Decoded& decoded)
{
    const std::string& sender = decoded.Message.Sender;
    const std::string& id = decoded.Message.Id;
    const E_Kind kind = decoded.Message.Value.Kind;
    const bool isNamed = decoded.Format == E_Format::NAMED;
    std::string value(1, '\0');
    bool flag = false;
    bool taken = false;
    world::S_World world;
    world.Incoming = bytes;
    Try_In(world, [&](Bt& bt) {
        if (kind == E_Kind::BOOL)
            taken = isNamed ? bt._ReadMsg_TAV_Bool(9, sender, id, flag, 0)
                            : bt._ReadMsg_TAVOrg_Bool(9, sender, id, flag, 0);
        else if (!isNamed)
            taken = bt._ReadMsg_TAVOrg_String(9, sender, id, value, MAX_SIZE, 0) >= 0;
        else if (kind == E_Kind::TEXT)
            taken = bt._ReadMsg_TAV_String(9, sender, id, value, MAX_SIZE, 0) >= 0;
        else
            taken = bt._ReadMsg_TAV_Data(9, sender, id, value, MAX_SIZE, 0) >= 0;
    });
    if (!taken) return std::nullopt;
    return kind == E_Kind::BOOL ? std::string(1, flag ? '\1' : '\0') : value;
}

bool Has(const std::vector<std::string>& words, const std::string& what)
{
    for (const std::string& word : words)
        if (word.find(what) != std::string::npos) return true;
    return false;
}

void Compare(const std::string& bytes, const S_Decoded& decoded)
{
    Expect(decoded.Size > 0 && decoded.Size <= bytes.size(), "a message has a size");
    // What is said about these is that readers misread them; how is not said.
    const bool isMisread = Has(decoded.Damage, "misread") || Has(decoded.Damage, "takes all that follows") ||
                           Has(decoded.Damage, "take all that follows");
    const S_Value& seen = decoded.Message.Value;
    if (isMisread || seen.Kind == E_Kind::UNKNOWN) return;
    const auto value = Read(bytes, decoded);
    const bool fails = Has(decoded.Damage, "fail") || Has(decoded.Damage, "ends before the end of") ||
                       Has(decoded.Damage, "ends before its value") || Has(decoded.Odd, "without the value");
    Expect(value.has_value() == !fails, "a reader takes what is not said to fail");
    if (fails) return;
    const std::string whole = seen.Kind == E_Kind::BOOL ? std::string(1, seen.Bool ? '\1' : '\0') : seen.Bytes;
    const std::string wanted = whole.substr(0, whole.size() - (Has(decoded.Damage, "drop its last byte") ? 1 : 0));
    const bool takesRest = decoded.Format == E_Format::NAMED && seen.Kind == E_Kind::TEXT;
    Expect((takesRest ? value->substr(0, wanted.size()) : *value) == wanted,
           "a reader's value is the one that is shown");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    if (bytes.empty() || bytes.size() > MAX_SIZE) return 0;
    for (const E_Format format : {E_Format::NAMED, E_Format::CLASSIC})
        Compare(bytes, Decode(format, bytes));
    return 0;
}
