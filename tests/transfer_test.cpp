// The timed transfer, the number codecs, the dump, and the readers of binary files.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "bluetooth/system_calls.h"
#include "tests/support.h"
#include "util/binary_dump.h"
#include "util/file_readers.h"
#include "util/number_codecs.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace tav_c_api_impl;

namespace {

// Calls that fail in the kernel: select on a descriptor that is not open, recv and send on a pipe.
constexpr int CLOSED = 1000;

TEST(Transfer, ReadData)
{
    C_TAV_Bluetooth bluetooth;
    S_SocketPair idle;
    S_SocketPair busy;
    S_SocketPair ended;
    int pipe[2] = {};
    ASSERT_EQ(::pipe(pipe), 0);
    ASSERT_EQ(write(pipe[1], "x", 1), 1);
    busy.Send("abcdef");
    ended.Close_Far();
    const struct
    {
        const char* What;
        int Socket;
        unsigned int Len;
        int Result;
        const char* Received;
        const char* Steps;
    } CASES[] = {
        {"nothing waits", idle.Near, 10, -1, "", "Start(10)|Timeout"},
        {"fewer than wait", busy.Near, 4, 4, "abcd", "Start(4)|1(1)|2(4)"},
        {"none wanted", busy.Near, 0, 0, "", "Start(0)|1(1)|2(0)"},
        {"more than wait", busy.Near, 10, 2, "ef", "Start(10)|1(1)|2(2)"},
        {"the peer closed", ended.Near, 10, 0, "", "Start(10)|1(1)|2(0)"},
        {"recv fails", pipe[0], 10, -1, "",
         "Start(10)|1(1)|Error in fce recv(Error Code 88 : Socket operation on non-socket)|2(-1)"},
        {"select fails", CLOSED, 10, -1, "", "Start(10)|Error in fce select(Error Code 9 : Bad file descriptor)"},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.What);
        char buffer[10] = {};
        tav_air::Start_Trace();
        EXPECT_EQ(bluetooth.ReadData(test.Socket, buffer, test.Len, 0), test.Result);
        EXPECT_STREQ(buffer, test.Received);
        EXPECT_EQ(Log_Lines(), Lines_Of("ReadData", test.Steps));
    }
    close(pipe[0]);
    close(pipe[1]);
}

TEST(Transfer, WriteData)
{
    C_TAV_Bluetooth bluetooth;
    S_SocketPair link;
    S_SocketPair ended;
    ended.Close_Far();
    std::signal(SIGPIPE, SIG_IGN);
    const struct
    {
        const char* What;
        int Socket;
        int Result;
        const char* Steps;
    } CASES[] = {
        {"sent", link.Near, 4, "Start(4)|1(1)|2(4)"},
        {"send fails", ended.Near, -1, "Start(4)|1(1)|Error in fce send(Error Code 32 : Broken pipe)|2(-1)"},
        {"select fails", CLOSED, -1, "Start(4)|Error in fce select(Error Code 9 : Bad file descriptor)"},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(test.What);
        tav_air::Start_Trace();
        EXPECT_EQ(bluetooth.WriteData(test.Socket, "abcdef", 4), test.Result);
        EXPECT_EQ(Log_Lines(), Lines_Of("WriteData", test.Steps));
    }
    EXPECT_EQ(link.Receive_All(), "abcd");
}

TEST(Transfer, ReadData_WaitsForItsTimeout)
{
    const struct
    {
        unsigned long Milliseconds;
        long Seconds;
        long Microseconds;
    } CASES[] = {{0, 0, 0}, {999, 0, 999000}, {1000, 1, 0}, {1500, 1, 500000}, {4294967295, 4294967, 295000}};
    for (const auto& test : CASES) {
        const timeval time = Get_Timeval(test.Milliseconds);
        EXPECT_EQ(time.tv_sec, test.Seconds) << test.Milliseconds;
        EXPECT_EQ(time.tv_usec, test.Microseconds) << test.Milliseconds;
    }
    C_TAV_Bluetooth bluetooth;
    S_SocketPair link;
    char byte = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(bluetooth.ReadData(link.Near, &byte, 1, 60), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));
}

TEST(Transfer, ReadData_TakesAnInterruptionForAFailure)
{
    C_TAV_Bluetooth bluetooth;
    S_SocketPair link;
    char byte = 0;
    std::signal(SIGALRM, [](int) {});
    const itimerval often = {{0, 20000}, {0, 20000}};
    const itimerval never = {};
    tav_air::Start_Trace();
    setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(bluetooth.ReadData(link.Near, &byte, 1, 10000), -1);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_EQ(Log_Lines(),
              Lines_Of("ReadData", "Start(1)|Error in fce select(Error Code 4 : Interrupted system call)"));
}

TEST(Codecs, NumbersAreLittleEndian)
{
    unsigned char buffer[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    Write_NumBinary_To_Buf(0x12345678U, buffer, 2);
    EXPECT_EQ(std::string(buffer, buffer + 4), Bytes("78 56 EE EE"));
    Write_NumBinary_To_Buf(-2, buffer, 4);
    EXPECT_EQ(std::string(buffer, buffer + 4), Bytes("FE FF FF FF"));
    const struct
    {
        const char* Bytes;
        unsigned int Value;
    } CASES[] = {{"34 12", 0x1234},    {"80 00", 128}, {"FF FF", 65535}, {"00 01", 256}, {"01 02 03 84 05", 0x84030201},
                 {"FF FF FF FF", ~0U}, {"", 0}};
    for (const auto& test : CASES) {
        const std::string bytes = Bytes(test.Bytes);
        unsigned int value = 7;
        Write_BufByte_To_NumDec(bytes.data(), static_cast<unsigned int>(bytes.size()), value);
        EXPECT_EQ(value, test.Value) << test.Bytes;
    }
}

TEST(Codecs, DumpIsOneLineOfHexadecimalText)
{
    const std::string bytes = Bytes("00 0A FF");
    std::string text = "before";
    Convert_BinaryDataToText(bytes.data(), 3, text);
    EXPECT_EQ(text, "000aff");
    Convert_BinaryDataToText<char>(nullptr, 3, text);
    EXPECT_EQ(text, "");
    tav_air::Start_Trace();
    EXPECT_TRUE(tav_c_api::WriteLogBinaryData_Dbg(bytes.data(), 3));
    EXPECT_TRUE(tav_air::Get_Trace().empty());
    tav_c_api::g_isLog_Quorvant_TAV = true;
    EXPECT_TRUE(tav_c_api::WriteLogBinaryData_Dbg(bytes.data(), 3));
    EXPECT_TRUE(tav_c_api::WriteLogBinaryData_Dbg(bytes.data(), 0));
    tav_c_api::g_isLog_Quorvant_TAV = false;
    EXPECT_EQ(tav_air::Get_Trace(), (std::vector<std::string>{"000aff\n", "\n"}));
}

TEST(FileReaders, FieldsAndFailures)
{
    char bytes[] = {'a', 'b', 0, 0, 'c', 'd'};
    FILE* const file = fmemopen(bytes, sizeof(bytes), "rb");
    std::string text = "before";
    char read = '?';
    EXPECT_TRUE(File_Read_String(file, 1, text));
    EXPECT_EQ(text, "ab");
    EXPECT_TRUE(File_Read_String(file, 256, text));
    EXPECT_EQ(text, "");
    EXPECT_TRUE(File_Read_Character(file, read));
    EXPECT_EQ(read, 'c');
    EXPECT_FALSE(File_Read_String(file, 256, text)) << "no terminator";
    EXPECT_EQ(text, "d");
    EXPECT_FALSE(File_Read_Character(file, read)) << "end of the file";
    rewind(file);
    fputc('x', file);  // not allowed on this stream: an error that leaves the bytes readable
    FILE* const noStream = nullptr;
    for (FILE* const stream : {file, noStream}) {
        text = "before";
        EXPECT_FALSE(File_Read_String(stream, 256, text));
        EXPECT_EQ(text, "");
        EXPECT_FALSE(File_Read_Character(stream, read));
        EXPECT_EQ(read, 'c');
    }
    fclose(file);
}

}  // namespace
