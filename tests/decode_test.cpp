// What tavbt's decoder says of a message is what the module's readers do with it.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "tests/support.h"
#include "tools/tavbt/format.h"

#include <gtest/gtest.h>
#include <random>

using namespace tavbt;

namespace {

constexpr unsigned int MAX_SIZE = 800;

// Has the reader of the kind that the decoder sees read the bytes; the value of a bool is one byte. None: it fails.
std::optional<std::string> Read(const std::string& bytes, const S_Decoded& decoded)
{
    static tav_c_api_impl::C_TAV_Bluetooth bt;
    const S_SocketPair link;
    link.Send(bytes);
    const auto& [sender, id, wanted] = decoded.Message;
    std::string value(1, '\0');
    bool flag = false;
    bool taken = false;
    if (wanted.Kind == E_Kind::BOOL)
        taken = decoded.Format == E_Format::NAMED ? bt._ReadMsg_TAV_Bool(link.Near, sender, id, flag, 0)
                                                  : bt._ReadMsg_TAVOrg_Bool(link.Near, sender, id, flag, 0);
    else if (decoded.Format == E_Format::CLASSIC)
        taken = bt._ReadMsg_TAVOrg_String(link.Near, sender, id, value, MAX_SIZE, 0) >= 0;
    else if (wanted.Kind == E_Kind::TEXT)
        taken = bt._ReadMsg_TAV_String(link.Near, sender, id, value, MAX_SIZE, 0) >= 0;
    else
        taken = bt._ReadMsg_TAV_Data(link.Near, sender, id, value, MAX_SIZE, 0) >= 0;
    if (!taken) return std::nullopt;
    return wanted.Kind == E_Kind::BOOL ? std::string(1, flag ? '\1' : '\0') : value;
}

bool Has(const std::vector<std::string>& words, const std::string& what)
{
    for (const std::string& word : words)
        if (word.find(what) != std::string::npos) return true;
    return false;
}

// Bytes of a message with one to three of them cut off, changed, doubled or left out.
std::string Mutate(std::string bytes, std::mt19937& random)
{
    for (auto rounds = random() % 4; rounds > 0 && bytes.size() > 1; --rounds) {
        const std::size_t at = random() % bytes.size();
        const auto how = random() % 4;
        if (how == 0) bytes.resize(std::max<std::size_t>(at, 1));
        if (how == 1) bytes[at] = static_cast<char>(random() % 3 == 0 ? 0 : random());
        if (how == 2) bytes.insert(at, 1, bytes[at]);
        if (how == 3) bytes.erase(at, 1);
    }
    return bytes;
}

TEST(Decode, SaysWhatReadersDo)
{
    const struct
    {
        E_Format Format;
        const char* Message;
        std::size_t More = 0;  // bytes behind it
    } MESSAGES[] = {
        {E_Format::NAMED, "01 41 42 00 61 62 63 00 48 69 00"},
        {E_Format::NAMED, "03 41 42 00 61 62 63 00 01"},
        {E_Format::NAMED, "04 41 42 00 61 62 63 00 02 00 00 00 DE AD"},
        {E_Format::NAMED, "04 41 00 61 00 04 01 00 00", 260},
        {E_Format::CLASSIC, "0C 00 01 00 81 9E 04 61 62 63 00 01 00 01"},
        {E_Format::CLASSIC, "0E 00 01 00 81 9E 04 61 62 63 00 03 00 48 69 00"},
    };
    std::mt19937 random(4711);
    std::size_t taken = 0;
    for (int i = 0; i < 20000; ++i) {
        const auto& [format, message, more] = MESSAGES[static_cast<std::size_t>(i) % std::size(MESSAGES)];
        const std::string bytes = Mutate(Bytes(message) + std::string(more, 'x'), random);
        const S_Decoded decoded = Decode(format, bytes);
        SCOPED_TRACE(i);
        ASSERT_GT(decoded.Size, 0U);
        ASSERT_LE(decoded.Size, bytes.size());
        // What is said about these is that readers misread them; how is not said.
        const bool isMisread = Has(decoded.Damage, "misread") || Has(decoded.Damage, "takes all that follows") ||
                               Has(decoded.Damage, "take all that follows");
        if (isMisread || decoded.Message.Value.Kind == E_Kind::UNKNOWN) continue;
        const auto value = Read(bytes, decoded);
        const bool fails = Has(decoded.Damage, "fail") || Has(decoded.Damage, "ends before the end of") ||
                           Has(decoded.Damage, "ends before its value");
        ASSERT_EQ(value.has_value(), !fails) << (decoded.Damage.empty() ? "whole" : decoded.Damage[0]);
        if (fails) continue;
        ++taken;
        const bool lost = Has(decoded.Damage, "drop its last byte");
        const S_Value& seen = decoded.Message.Value;
        const std::string whole = seen.Kind == E_Kind::BOOL ? std::string(1, seen.Bool ? '\1' : '\0') : seen.Bytes;
        const std::string wanted = whole.substr(0, whole.size() - (lost ? 1 : 0));
        const bool takesRest = decoded.Format == E_Format::NAMED && decoded.Message.Value.Kind == E_Kind::TEXT;
        EXPECT_EQ(takesRest ? value->substr(0, wanted.size()) : *value, wanted);
    }
    EXPECT_GT(taken, 5000U);
}

}  // namespace
