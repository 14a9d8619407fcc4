// The timed transfer, the number codecs, the dump, and the readers of binary files.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "tests/support.h"
#include "util/binary_dump.h"
#include "util/file_readers.h"
#include "util/number_codecs.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>

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
    char buffer[10] = {};
    const struct
    {
        const char *Operation, *Steps, *Moved;
        int Socket, Result;
        unsigned int Len;
    } CASES[] = {
        {"ReadData", "Start(9)|Timeout", "", link.Near, -1, 9},
        {"ReadData", "Start(4)|1(1)|2(4)", "abcd", busy.Near, 4, 4},
        {"ReadData", "Start(0)|1(1)|2(0)", "", busy.Near, 0, 0},
        {"ReadData", "Start(9)|1(1)|2(2)", "ef", busy.Near, 2, 9},
        {"ReadData", "Start(7)|1(1)|2(0)", "", ended.Near, 0, 7},
        {"ReadData", "Start(9)|1(1)|Error in fce recv(Error Code 88 : Socket operation on non-socket)|2(-1)", "",
         noSocket, -1, 9},
        {"ReadData", "Start(9)|Error in fce select(Error Code 9 : Bad file descriptor)", "", closed, -1, 9},
        {"WriteData", "Start(4)|1(1)|2(4)", "abcd", link.Near, 4, 4},
        {"WriteData", "Start(4)|1(1)|Error in fce send(Error Code 88 : Socket operation on non-socket)|2(-1)", "",
         noSocket, -1, 4},
        {"WriteData", "Start(4)|Error in fce select(Error Code 9 : Bad file descriptor)", "", closed, -1, 4},
    };
    for (const auto& test : CASES) {
        SCOPED_TRACE(std::string(test.Operation) + ": " + test.Steps);
        std::fill(std::begin(buffer), std::end(buffer), '\0');
        tav_air::Start_Trace();
        const int result = test.Operation[0] == 'R' ? bluetooth.ReadData(test.Socket, buffer, test.Len, 0)
                                                    : bluetooth.WriteData(test.Socket, "abcdef", test.Len);
        EXPECT_EQ(result, test.Result);
        EXPECT_EQ(buffer + link.Receive_All(), test.Moved);
        EXPECT_EQ(Log_Lines(), Lines_Of({{test.Operation, test.Steps}}));
    }
    close(noSocket);

    std::signal(SIGALRM, [](int) {});
    ualarm(20000, 20000);
    EXPECT_EQ(bluetooth.ReadData(link.Near, buffer, 1, 10000), -1) << "interrupted";
    ualarm(0, 0);
    EXPECT_EQ(Log_Lines().back(),
              Lines_Of({{"ReadData", "Error in fce select(Error Code 4 : Interrupted system call)"}}).back());
}

TEST(Codecs, BytesAsNumberAndAsText)
{
    const std::string bytes = Bytes("01 0A 03 84 05");
    for (const unsigned int size : {0U, 2U, 4U, 5U}) {
        unsigned int number = 7;
        Write_BufByte_To_NumDec(bytes.data(), size, number);
        EXPECT_EQ(number, size == 0 ? 0 : size == 2 ? 0x0A01 : 0x84030A01);
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

TEST(FileReaders, StopAtTheEndAndAtAnError)
{
    char bytes[] = {'a', 'b', 0, 'c', 'd'};
    FILE* const file = fmemopen(bytes, sizeof(bytes), "rb");
    std::string text;
    char read = '?';
    EXPECT_TRUE(File_Read_String(file, 1, text) && text == "ab" && File_Read_Character(file, read) && read == 'c');
    EXPECT_TRUE(!File_Read_String(file, 9, text) && text == "d" && !File_Read_Character(file, read) && read == 'c');
    fseek(file, 0, SEEK_SET);
    fputc('x', file);  // fails on this stream: it is in error from here on, its bytes still readable
    EXPECT_FALSE(File_Read_Character(file, read) || File_Read_String(file, 9, text) || !text.empty());
    fclose(file);
}

}  // namespace
