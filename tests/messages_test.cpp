// Both message formats: the bytes sent and taken, and every line logged on the way.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "tests/support.h"
#include "util/binary_dump.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>

using namespace tav_c_api_impl;
using Bt = C_TAV_Bluetooth;

namespace {

// Kinds of messages, from AB, id abc: bytes, steps of sender and reader up to the id.
// The operations without a name write no lines.
constexpr int CLASSIC_BOOL = 0, CLASSIC_TEXT = 1, BOOL = 2, TEXT = 3, DATA = 4;
const struct
{
    const char* Message;
    std::string Name, Built, IdSteps;
} KINDS[] = {
    {"0C 00 01 00 81 9E 04 61 62 63 00 01 00 01", "TAVOrg_Bool", "", "Length of MsgId : 4|MsgId : abc"},
    {"0E 00 01 00 81 9E 04 61 62 63 00 03 00 48 69 00", "TAVOrg_String", "", "Length of MsgId : 4|MsgId : abc"},
    {"03 41 42 00 61 62 63 00 01", "", "", ""},
    {"01 41 42 00 61 62 63 00 48 69 00", "TAV_String", "|Set Msg Type|Source Brick Name(AB)|Msg Id(abc)|String(Hi)",
     "3(AB)|4(abc)"},
    {"04 41 42 00 61 62 63 00 02 00 00 00 DE AD", "TAV_Data",
     "|Set Msg Type|Source Brick Name(AB)|Msg Id(abc)|Data Size(2)|Data", "Brick Name(AB)|Msg Id(abc)"},
};

bool Send(int kind, int socket, const std::string& msgId)
{
    static Bt bt;
    const unsigned char data[] = {0xDE, 0xAD};
    if (kind == CLASSIC_BOOL) return bt._SendMsg_TAVOrg_Bool(socket, msgId, true);
    if (kind == CLASSIC_TEXT) return bt._SendMsg_TAVOrg_String(socket, msgId, "Hi");
    if (kind == BOOL) return bt._SendMsg_TAV_Bool(socket, msgId, true);
    if (kind == TEXT) return bt._SendMsg_TAV_String(socket, msgId, "Hi");
    return bt._SendMsg_TAV_Data(socket, msgId, data, sizeof(data));
}

// Reads from AB with id abc. The value of a bool is one byte of `out`.
int Read(int kind, int socket, unsigned int maxSize, std::string& out)
{
    static Bt bt;
    if (kind == CLASSIC_TEXT) return bt._ReadMsg_TAVOrg_String(socket, "", "abc", out, maxSize, 0);
    if (kind == TEXT) return bt._ReadMsg_TAV_String(socket, "AB", "abc", out, maxSize, 0);
    if (kind == DATA) return bt._ReadMsg_TAV_Data(socket, "AB", "abc", out, maxSize, 0);
    bool value = out[0] != 0;
    const bool taken = kind == BOOL ? bt._ReadMsg_TAV_Bool(socket, "AB", "abc", value, 0)
                                    : bt._ReadMsg_TAVOrg_Bool(socket, "", "abc", value, 0);
    out[0] = value ? '\1' : '\0';
    return taken ? 1 : -1;
}

// "Start(14)"
std::string Count(const std::string& step, std::size_t count)
{
    return step + "(" + std::to_string(count) + ")";
}

TEST(Sending, WholeShortAndFailed)
{
    std::signal(SIGPIPE, SIG_IGN);
    for (int kind = CLASSIC_BOOL; kind <= DATA; ++kind) {
        const std::string name = kind == BOOL ? "" : "_SendMsg_" + KINDS[kind].Name;
        const std::string count = kind == DATA ? "Write Data" : "5";
        const std::string message = Bytes(KINDS[kind].Message);
        const std::string begun = Count("Start", message.size()) + "|1(1)|";
        S_SocketPair link;
        const auto check = [&](bool sent, const std::string& built, const std::string& moved, const std::string& end) {
            tav_air::Start_Trace();
            EXPECT_EQ(Send(kind, link.Near, "abc"), sent) << kind;
            EXPECT_EQ(link.Receive_All(), sent ? message : "") << kind;
            EXPECT_EQ(Log_Lines(), Lines_Of({{name, "Start" + built}, {"WriteData", moved}, {name, end}})) << kind;
        };
        check(true, KINDS[kind].Built, begun + Count("2", message.size()), Count(count, message.size()) + "|End");
        g_BrickName = "";
        if (kind >= BOOL) check(false, "|Set Msg Type|Error(Not Brick Name)", "", "");
        g_BrickName = "AB";

        const int little = 1;
        setsockopt(link.Near, SOL_SOCKET, SO_SNDBUF, &little, sizeof(little));
        fcntl(link.Near, F_SETFL, O_NONBLOCK);
        EXPECT_FALSE(Send(kind, link.Near, std::string(100000, 'i')));
        const std::size_t part = link.Receive_All().size();
        EXPECT_TRUE(part > 0 && part < 100000);
        EXPECT_EQ(Log_Lines().back(), Lines_Of({{"WriteData", Count("2", part)}, {name, Count(count, part)}}).back());
        shutdown(link.Far, SHUT_RDWR);
        check(false, KINDS[kind].Built, begun + "Error in fce send(Error Code 32 : Broken pipe)|2(-1)",
              "Error Write data");
    }
}

TEST(Sending, FalseEmptyAndLongerThanFits)
{
    Bt bt;
    S_SocketPair link;
    const std::string text(65800, 't');
    EXPECT_TRUE(bt._SendMsg_TAVOrg_Bool(link.Near, text.substr(0, 255), false));
    EXPECT_EQ(link.Receive_All(), Bytes("08 01 01 00 81 9E 00") + text.substr(0, 255) + Bytes("00 01 00 00"));
    EXPECT_TRUE(bt._SendMsg_TAVOrg_String(link.Near, "", text));
    EXPECT_EQ(link.Receive_All(), Bytes("11 01 01 00 81 9E 01 00 09 01") + text + '\0');
    EXPECT_TRUE(bt._SendMsg_TAV_Bool(link.Near, "", false) && bt._SendMsg_TAV_Data(link.Near, "", nullptr, 0));
    EXPECT_EQ(link.Receive_All(), Bytes("03 41 42 00 00 00 04 41 42 00 00 00 00 00 00"));
}

TEST(Reading, ResultsAndEveryLine)
{
    // What is received: null for nothing, empty for the end of the connection. What is returned: null for a failure.
    // The steps behind the receive: "+" are those up to the id. A request beyond 1024 is received without a line.
    const struct
    {
        int Kind;
        const char *What, *Received, *Out;
        std::string Steps;
        unsigned int Request = 1024, MaxSize = 1;
    } CASES[] = {
        {CLASSIC_BOOL, "not 0", "FF FF FF FF FF FF 04 61 62 63 7A FF FF 80", "01", "+|Bool Value : 128", 32},
        {CLASSIC_BOOL, "skipped 0", "00 0C 00 01 00 81 9E 04 61 62 63 00 01 00 00", "00", "+|Bool Value : 0", 32},
        {CLASSIC_BOOL, "second 0", "00 00 0C 00 01 00 81 9E 04 61 62 63 00", nullptr, "Length of MsgId : 158", 32},
        {CLASSIC_BOOL, "id length 0", "0C 00 01 00 81 9E 00 61 62 63", "01",
         "Length of MsgId : 0|MsgId : abc|Bool Value : 99", 32},
        {CLASSIC_BOOL, "cut in the id", "0C 00 01 00 81 9E 04 61 62 63", nullptr, "Length of MsgId : 4", 32},
        {CLASSIC_BOOL, "closed", "", nullptr, "", 32},
        {CLASSIC_BOOL, "time-out", nullptr, nullptr, "", 32},
        {CLASSIC_TEXT, "text length 0", "0E 00 01 00 81 9E 04 61 62 63 00 00 00 48 69 7A", "48 69 7A",
         "+|Length of Msg Text : 0|Msg Text : Hiz"},
        {CLASSIC_TEXT, "too long", "0E 00 01 00 81 9E 04 61 62 63 00 80 01 48", nullptr, "+|Length of Msg Text : 384"},
        {CLASSIC_TEXT, "256 starts with 0", "00 01 01 00 81 9E 04 61 62 63 00", nullptr, "Length of MsgId : 97"},
        {CLASSIC_TEXT, "longer id", "0F 00 01 00 81 9E 05 61 62 63 64 00 03 00 48", nullptr,
         "Length of MsgId : 5|MsgId : abcd|Error (Msg Id)"},
        {CLASSIC_TEXT, "time-out", nullptr, nullptr, "", 1024, 950},
        {CLASSIC_TEXT, "large", "0E 00 01 00 81 9E 04 61 62 63 00 03 00 48 69 00", "48 69",
         "+|Length of Msg Text : 3|Msg Text : Hi", 1025, 951},
        {BOOL, "true, next message is dropped", "03 41 42 00 61 62 63 00 80 03 41", "01", ""},
        {BOOL, "false", "03 41 42 00 61 62 63 00 00", "00", ""},
        {BOOL, "other sender", "03 41 43 00 61 62 63 00 01", nullptr, ""},
        {BOOL, "other id", "03 41 42 00 61 62 63 64 00 01", nullptr, ""},
        {TEXT, "longer than maxSize", "01 41 42 00 61 62 63 00 48 69 00", "48 69", "+|5(Hi)"},
        {TEXT, "two messages, last byte dropped", "01 41 42 00 61 62 63 00 48 00 01 7A", "48 00 01", "+|5(H)"},
        {TEXT, "other type", "FF 41 42 00 61 62 63 00 48 69 00", nullptr, "Error (Not type string : 255)"},
        {TEXT, "other sender", "01 41 43 00 61 62 63 00 48 69 00", nullptr, "3(AC)|Error (Device Name)"},
        {TEXT, "other id", "01 41 42 00 00 48 69 00", nullptr, "3(AB)|4()|Error (Msg Id)"},
        {TEXT, "no end of the sender", "01 41 42", nullptr, "2(Error find)"},
        {TEXT, "no end of the id", "01 41 42 00 61 62 63", nullptr, "3(AB)|4(Error find)"},
        {TEXT, "closed", "", nullptr, "Error (Not type string : 0)"},
        {TEXT, "time-out", nullptr, nullptr, "", 1024, 839},
        {TEXT, "large", "01 41 42 00 61 62 63 00 48 69 00", "48 69", "", 1025, 840},
        {TEXT, "large, other sender", "01 41 43 00 61 62 63 00 48 69 00", nullptr, "", 1025, 840},
        {DATA, "data", "04 41 42 00 61 62 63 00 02 00 00 00 DE AD", "DE AD", "+", 1024, 835},
        {DATA, "beyond maxSize", "04 41 42 00 61 62 63 00 02 00 00 00 DE AD", "DE", "+"},
        {DATA, "beyond its size", "04 41 42 00 61 62 63 00 01 00 00 00 DE AD", "DE", "+", 1024, 10},
        {DATA, "below its size", "04 41 42 00 61 62 63 00 FF FF FF FF DE AD", "DE AD", "+", 1024, 10},
        {DATA, "size 0 and a byte", "04 41 42 00 61 62 63 00 00 00 00 00 DE", "", "+"},
        {DATA, "size 0", "04 41 42 00 61 62 63 00 00 00 00 00", nullptr, "+"},
        {DATA, "other type", "01 41 42 00 61 62 63 00 48 69 00", nullptr, "Error (Not type data : 1)"},
        {DATA, "other sender", "04 41 00 61 62 63 00 01 00 00 00 DE", nullptr, "Brick Name(A)|Error(Device Name)"},
        {DATA, "other id", "04 41 42 00 61 62 00 01 00 00 00 DE", nullptr, "Brick Name(AB)|Msg Id(ab)|Error(Msg Id)"},
        {DATA, "time-out", nullptr, nullptr, ""},
        {DATA, "large", "04 41 42 00 61 62 63 00 02 00 00 00 DE AD", "DE AD", "", 1025, 836},
    };
    tav_c_api::g_isLog_Quorvant_TAV = true;
    for (const auto& test : CASES)
        for (const std::string& before : {std::string(1, '\0'), std::string(1, '\1')}) {
            SCOPED_TRACE(KINDS[test.Kind].Message);
            SCOPED_TRACE(test.What);
            S_SocketPair link;
            const std::string bytes = Bytes(test.Received ? test.Received : "");
            link.Send(bytes);
            if (test.Received && bytes.empty()) shutdown(link.Far, SHUT_RDWR);
            std::string out = before;
            tav_air::Start_Trace();
            const int result = Read(test.Kind, link.Near, test.MaxSize, out);
            EXPECT_EQ(result, test.Out ? static_cast<int>(Bytes(test.Out).size()) : -1);
            EXPECT_EQ(out, test.Out ? Bytes(test.Out) : test.Kind == DATA ? "" : before);

            const std::string name = test.Kind == BOOL ? "" : "_ReadMsg_" + KINDS[test.Kind].Name;
            std::string moved = Count("Start", test.Request) + "|Timeout", received = "Error (Read Data)|", dump;
            if (test.Received) {
                moved = Count("Start", test.Request) + Count("|1(1)|2", bytes.size());
                received = Count(test.Kind == DATA ? "Read Data" : "1", bytes.size()) + "|";
                Convert_BinaryDataToText(bytes.data(), static_cast<unsigned int>(bytes.size()), dump);
                if (test.Kind < BOOL) received += dump + "\n|";
            }
            std::string steps = test.Steps;
            if (steps[0] == '+') steps.replace(0, 1, KINDS[test.Kind].IdSteps);
            if (test.Request <= 1024) steps.insert(0, received);
            EXPECT_EQ(Log_Lines(), Lines_Of({{name, "Start"}, {"ReadData", moved}, {name, steps}}));
        }
    tav_c_api::g_isLog_Quorvant_TAV = false;
}

}  // namespace
