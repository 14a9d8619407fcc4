// The timed transfer, the number codecs, the dump, and the readers of binary files.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "tests/support.h"
#include "util/binary_dump.h"
#include "util/file_readers.h"
#include "util/number_codecs.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace tav_c_api_impl;

namespace {

TEST(Transfer, MovesOnceAndReportsEveryCall)
{
    C_TAV_Bluetooth bluetooth;
    S_SocketPair link, busy, ended;
    busy.Send("abcdef");
    close(std::exchange(ended.Far, -1));
    const int noSocket = open("/dev/null", O_RDWR);
    const int closed = dup(noSocket);
    close(closed);
    const struct
    {
        const char* Operation;
        int Socket;
        unsigned int Len;
        int Result;
        const char* Moved;
        const char* Steps;
    } CASES[] = {
        {"ReadData", link.Near, 9, -1, "", "Start(9)|Timeout"},
        {"ReadData", busy.Near, 4, 4, "abcd", "Start(4)|1(1)|2(4)"},
        {"ReadData", busy.Near, 0, 0, "", "Start(0)|1(1)|2(0)"},
        {"ReadData", busy.Near, 9, 2, "ef", "Start(9)|1(1)|2(2)"},
        {"ReadData", ended.Near, 7, 0, "", "Start(7)|1(1)|2(0)"},
        {"ReadData", noSocket, 9, -1, "",
         "Start(9)|1(1)|Error in fce recv(Error Code 88 : Socket operation on non-socket)|2(-1)"},
        {"ReadData", closed, 9, -1, "", "Start(9)|Error in fce select(Error Code 9 : Bad file descriptor)"},
        {"WriteData", link.Near, 4, 4, "abcd", "Start(4)|1(1)|2(4)"},
        {"WriteData", noSocket, 4, -1, "",
         "Start(4)|1(1)|Error in fce send(Error Code 88 : Socket operation on non-socket)|2(-1)"},
        {"WriteData", closed, 4, -1, "", "Start(4)|Error in fce select(Error Code 9 : Bad file descriptor)"},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(std::string(test.Operation) + ": " + test.Steps);
        char buffer[10] = {};
        const bool reads = test.Operation[0] == 'R';
        tav_air::Start_Trace();
        EXPECT_EQ(reads ? bluetooth.ReadData(test.Socket, buffer, test.Len, 0)
                        : bluetooth.WriteData(test.Socket, "abcdef", test.Len),
                  test.Result);
        EXPECT_EQ(buffer + link.Receive_All(), test.Moved);
        EXPECT_EQ(Log_Lines(), Lines_Of({{test.Operation, test.Steps}}));
    }
    close(noSocket);
}

TEST(Transfer, InterruptedWaitFails)
{
    C_TAV_Bluetooth bluetooth;
    S_SocketPair link;
    char byte = 0;
    std::signal(SIGALRM, [](int) {});
    tav_air::Start_Trace();
    ualarm(20000, 20000);
    EXPECT_EQ(bluetooth.ReadData(link.Near, &byte, 1, 10000), -1);
    ualarm(0, 0);
    EXPECT_EQ(Log_Lines(),
              Lines_Of({{"ReadData", "Start(1)|Error in fce select(Error Code 4 : Interrupted system call)"}}));
}

TEST(Codecs, LittleEndianNumbersAndHexadecimalText)
{
    unsigned char buffer[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    Write_NumBinary_To_Buf(0x12345678U, buffer, 2);
    EXPECT_EQ(std::string(buffer, buffer + 4), Bytes("78 56 EE EE"));
    Write_NumBinary_To_Buf(-2, buffer, 4);
    EXPECT_EQ(std::string(buffer, buffer + 4), Bytes("FE FF FF FF"));
    const std::string bytes = Bytes("01 0A 03 84 05");
    const unsigned int NUMBERS[] = {0, 0x01, 0x0A01, 0x030A01, 0x84030A01, 0x84030A01};
    for (unsigned int size = 0; size <= bytes.size(); ++size) {
        unsigned int number = 7;
        Write_BufByte_To_NumDec(bytes.data(), size, number);
        EXPECT_EQ(number, NUMBERS[size]);
    }
    for (const bool isOn : {false, true}) {
        tav_air::Start_Trace();
        tav_c_api::g_isLog_Quorvant_TAV = isOn;
        EXPECT_TRUE(tav_c_api::WriteLogBinaryData_Dbg(bytes.data(), 4));
        EXPECT_TRUE(tav_c_api::WriteLogBinaryData_Dbg<char>(nullptr, 4));
        EXPECT_EQ(Log_Lines(), Lines_Of({{isOn ? "dump" : "", "010a0384\n|\n"}}));
    }
    tav_c_api::g_isLog_Quorvant_TAV = false;
}

TEST(FileReaders, FieldsAndFailures)
{
    char bytes[] = {'a', 'b', 0, 'c', 'd'};
    FILE* const file = fmemopen(bytes, sizeof(bytes), "rb");
    std::string text;
    char read = '?';
    EXPECT_TRUE(File_Read_String(file, 1, text) && text == "ab" && File_Read_Character(file, read) && read == 'c');
    EXPECT_TRUE(!File_Read_String(file, 256, text) && text == "d" && !File_Read_Character(file, read) && read == 'c');
    rewind(file);
    fputc('x', file);  // fails on this stream: it is in error from here on, its bytes still readable
    for (FILE* const stream : {file, static_cast<FILE*>(nullptr)}) {
        text = "before";
        EXPECT_TRUE(!File_Read_String(stream, 256, text) && text.empty());
        EXPECT_TRUE(!File_Read_Character(stream, read) && read == 'c');
    }
    fclose(file);
}

}  // namespace
