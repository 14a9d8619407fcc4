// The timed transfer, the number codecs, the dump, and the readers of binary files.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "bluetooth/system_calls.h"
#include "tests/support.h"
#include "util/binary_dump.h"
#include "util/file_readers.h"
#include "util/number_codecs.h"

#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utility>

using namespace tav_c_api_impl;

namespace {

TEST(Transfer, MovesOnceAndReportsEveryCall)
{
    C_TAV_Bluetooth bluetooth;
    S_SocketPair link;
    S_SocketPair busy;
    S_SocketPair ended;
    std::signal(SIGPIPE, SIG_IGN);
    busy.Send("abcdef");
    close(std::exchange(ended.Far, -1));
    int pipe[2] = {-1, -1};  // waited for like a socket, but refused by recv
    ASSERT_EQ(::pipe(pipe), 0);
    ASSERT_EQ(write(pipe[1], "x", 1), 1);
    const int closed = dup(0);
    close(closed);
    const struct
    {
        const char* What;
        const char* Operation;
        int Socket;
        unsigned int Len;
        int Result;
        const char* Buffer;
        const char* Steps;
    } CASES[] = {
        {"nothing waits", "ReadData", link.Near, 9, -1, "", "Start(9)|Timeout"},
        {"more waits", "ReadData", busy.Near, 4, 4, "abcd", "Start(4)|1(1)|2(4)"},
        {"none wanted", "ReadData", busy.Near, 0, 0, "", "Start(0)|1(1)|2(0)"},
        {"fewer wait", "ReadData", busy.Near, 9, 2, "ef", "Start(9)|1(1)|2(2)"},
        {"the peer closed", "ReadData", ended.Near, 9, 0, "", "Start(9)|1(1)|2(0)"},
        {"recv fails", "ReadData", pipe[0], 9, -1, "",
         "Start(9)|1(1)|Error in fce recv(Error Code 88 : Socket operation on non-socket)|2(-1)"},
        {"select fails", "ReadData", closed, 9, -1, "",
         "Start(9)|Error in fce select(Error Code 9 : Bad file descriptor)"},
        {"sent", "WriteData", link.Near, 4, 4, "abcd", "Start(4)|1(1)|2(4)"},
        {"send fails", "WriteData", ended.Near, 4, -1, "",
         "Start(4)|1(1)|Error in fce send(Error Code 32 : Broken pipe)|2(-1)"},
        {"select fails", "WriteData", closed, 4, -1, "",
         "Start(4)|Error in fce select(Error Code 9 : Bad file descriptor)"},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(std::string(test.Operation) + ": " + test.What);
        char buffer[10] = {};
        tav_air::Start_Trace();
        const int result = test.Operation == std::string("ReadData")
                               ? bluetooth.ReadData(test.Socket, buffer, test.Len, 0)
                               : bluetooth.WriteData(test.Socket, "abcdef", test.Len);
        EXPECT_EQ(result, test.Result);
        EXPECT_EQ(buffer + link.Receive_All(), test.Buffer);
        EXPECT_EQ(Log_Lines(), Lines_Of(test.Operation, test.Steps));
    }
    for (const int end : pipe)
        close(end);
}

TEST(Transfer, ReadWaitsForItsTimeoutUnlessInterrupted)
{
    for (const long timeout : {0L, 999L, 1000L, 1500L}) {
        const timeval time = Get_Timeval(static_cast<unsigned long>(timeout));
        EXPECT_EQ(time.tv_sec, timeout / 1000);
        EXPECT_EQ(time.tv_usec, timeout % 1000 * 1000);
    }
    C_TAV_Bluetooth bluetooth;
    S_SocketPair link;
    char byte = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(bluetooth.ReadData(link.Near, &byte, 1, 60), -1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));

    std::signal(SIGALRM, [](int) {});
    tav_air::Start_Trace();
    ualarm(20000, 20000);
    EXPECT_EQ(bluetooth.ReadData(link.Near, &byte, 1, 10000), -1);
    ualarm(0, 0);
    EXPECT_EQ(Log_Lines().back(),
              "C_TAV_Bluetooth::ReadData - Error in fce select(Error Code 4 : Interrupted system call)");
}

TEST(Codecs, NumbersAreLittleEndian)
{
    unsigned char buffer[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    Write_NumBinary_To_Buf(0x12345678U, buffer, 2);
    EXPECT_EQ(std::string(buffer, buffer + 4), Bytes("78 56 EE EE"));
    Write_NumBinary_To_Buf(-2, buffer, 4);
    EXPECT_EQ(std::string(buffer, buffer + 4), Bytes("FE FF FF FF"));
    const std::pair<const char*, unsigned int> CASES[] = {
        {"34 12", 0x1234}, {"80 00", 128}, {"00 01", 256}, {"FF FF", 65535}, {"01 02 03 84 05", 0x84030201}, {"", 0},
    };
    for (const auto& [hex, expected] : CASES) {
        const std::string bytes = Bytes(hex);
        unsigned int value = 7;
        Write_BufByte_To_NumDec(bytes.data(), static_cast<unsigned int>(bytes.size()), value);
        EXPECT_EQ(value, expected) << hex;
    }
}

TEST(Codecs, DumpIsOneLineOfHexadecimalText)
{
    const std::string bytes = Bytes("00 0A FF");
    tav_air::Start_Trace();
    for (const bool on : {false, true}) {
        tav_c_api::g_isLog_Quorvant_TAV = on;
        EXPECT_TRUE(tav_c_api::WriteLogBinaryData_Dbg(bytes.data(), 3));
        EXPECT_TRUE(tav_c_api::WriteLogBinaryData_Dbg<char>(nullptr, 3));
        EXPECT_EQ(Log_Lines(), on ? (std::vector<std::string>{"000aff\n", "\n"}) : std::vector<std::string>());
    }
    tav_c_api::g_isLog_Quorvant_TAV = false;
    std::string text = "before";
    Convert_BinaryDataToText(bytes.data(), 0, text);
    EXPECT_EQ(text, "");
}

TEST(FileReaders, FieldsAndFailures)
{
    char bytes[] = {'a', 'b', 0, 'c', 'd'};
    FILE* const file = fmemopen(bytes, sizeof(bytes), "rb");
    std::string text = "before";
    char read = '?';
    EXPECT_TRUE(File_Read_String(file, 1, text));
    EXPECT_EQ(text, "ab");
    EXPECT_TRUE(File_Read_Character(file, read));
    EXPECT_EQ(read, 'c');
    EXPECT_FALSE(File_Read_String(file, 256, text)) << "no terminator";
    EXPECT_EQ(text, "d");
    EXPECT_FALSE(File_Read_Character(file, read)) << "end of the file";
    rewind(file);
    fputc('x', file);  // fails on this stream: it is in error from here on, its bytes still readable
    for (FILE* const stream : {file, static_cast<FILE*>(nullptr)}) {
        text = "before";
        EXPECT_FALSE(File_Read_String(stream, 256, text));
        EXPECT_EQ(text, "");
        EXPECT_FALSE(File_Read_Character(stream, read));
        EXPECT_EQ(read, 'c');
    }
    fclose(file);
}

}  // namespace
