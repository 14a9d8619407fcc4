// The default services for stand-alone programs. Run with TAV_LOG naming a file that does not exist yet.
#include "api/tav_c_api.h"
#include "host/descriptors.h"
#include "host/printable.h"
#include "sim/air.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tav_c_api;
using namespace tav_c_api_impl;

namespace {

// The log file of the test run.
std::string Get_LogPath()
{
    const char* const path = getenv("TAV_LOG");
    return path ? path : "";
}

std::vector<std::string> Read_Log()
{
    std::ifstream file(Get_LogPath());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

TEST(Host, LogsWholeLinesOfTwoThreads)
{
    ASSERT_TRUE(g_isLog_Quorvant_TAV) << "on from the start";
    const std::string longText(5000, 'x');
    WriteLog_Dbg("without a line break %d", 1);
    WriteLog_Dbg("%s\n", "with one");
    WriteLog_Dbg("%s", longText.c_str());
    WriteLog_Dbg("Brick Name(%s)\n", "Robot2)\n2026-11-22 00:00:00.000000 1 forged\r\x1B[2J(");
    const auto write = [] {
        for (int i = 0; i < 500; ++i)
            WriteLog_Dbg("line %d of a thread", i);
    };
    std::thread other(write);
    write();
    other.join();
    g_isLog_Quorvant_TAV = false;
    WriteLog_Dbg("dropped");
    g_isLog_Quorvant_TAV = true;

    const auto lines = Read_Log();
    ASSERT_EQ(lines.size(), 1004U);
    const std::regex form("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} \\d+ (without a line break 1|with "
                          "one|x{1000}|line \\d+ of a thread|"
                          "Brick Name\\(Robot2\\)\\\\x0A.* forged\\\\x0D\\\\x1B\\[2J\\(\\))");
    for (std::string line : lines) {
        if (line.find("xxx") != std::string::npos) {
            EXPECT_NE(line.find(longText), std::string::npos);
            line.resize(line.size() - 4000);
        }
        EXPECT_TRUE(std::regex_match(line, form)) << line;
    }
}

TEST(Host, MakesTextsPrintable)
{
    const struct
    {
        std::string Text;
        std::string Shown;
    } CASES[] = {
        {"", ""},
        {"Robot 2 ~", "Robot 2 ~"},
        {"\xC3\xA4 \xE2\x82\xAC \xF0\x9F\xA4\x96", "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\xA4\x96"},
        {std::string("\0\x1B[2J\n\x7F", 7), "\\x00\\x1B[2J\\x0A\\x7F"},
        {"\xC2\x9Bm", "\\xC2\\x9Bm"},             // a control character beyond ASCII
        {"x\xE2\x80\xAEy", "x\\xE2\\x80\\xAEy"},  // writes what follows from right to left
        {"\xD8\x9C\xE2\x80\x8E\xE2\x80\x8F", "\\xD8\\x9C\\xE2\\x80\\x8E\\xE2\\x80\\x8F"},
        {"\xE2\x80\xA8\xE2\x81\xA9", "\\xE2\\x80\\xA8\\xE2\\x81\\xA9"},
        {"\xFF\xC3", "\\xFF\\xC3"},                                               // no UTF-8: no first byte, cut,
        {"\xC0\xAF\xE0\x80\x9B", "\\xC0\\xAF\\xE0\\x80\\x9B"},                    // longer than needed,
        {"\xED\xA0\x80\xF4\x90\x80\x80", "\\xED\\xA0\\x80\\xF4\\x90\\x80\\x80"},  // no character
        {"\xE2\x82x", "\\xE2\\x82x"},
    };
    for (const auto& [text, shown] : CASES)
        EXPECT_EQ(tav_host::Printable(text), shown);
}

TEST(Host, LimitsDescriptorsToThoseOfSelect)
{
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    for (const rlim_t allowed : {rlim_t{4096}, rlim_t{100}}) {
        if (before.rlim_max < allowed) continue;
        rlimit limit = {allowed, before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &limit);
        tav_host::Limit_Descriptors();
        getrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(limit.rlim_cur, std::min<rlim_t>(allowed, FD_SETSIZE));
    }
    setrlimit(RLIMIT_NOFILE, &before);
}

TEST(Host, NameOfThisBrick)
{
    ASSERT_TRUE(tav_air::Enter("host-" + std::to_string(getpid()), 1000));
    std::string name;
    char host[256] = {};
    gethostname(host, sizeof(host));
    EXPECT_TRUE(Get_TAVBrickName(name) && name == host) << "without an adapter";
    tav_air::Put({"02:00:00:00:00:01", "Adapter"});
    ASSERT_EQ(tav_air::Add_Faults("hci_read_local_name:1=EIO"), "");
    EXPECT_TRUE(Get_TAVBrickName(name) && name == host) << "with an adapter that does not answer";
    setenv("TAV_BRICK_NAME", "", 1);
    EXPECT_TRUE(Get_TAVBrickName(name) && name == "Adapter");
    EXPECT_TRUE(tav_air::Get_Open().empty());
    setenv("TAV_BRICK_NAME", "Given", 1);
    EXPECT_TRUE(Get_TAVBrickName(name) && name == "Given");
    unsetenv("TAV_BRICK_NAME");
}

TEST(Host, DeletesAFileIfThereIsOne)
{
    const std::string path = Get_LogPath() + ".other";
    std::ofstream(path) << "x";
    EXPECT_TRUE(DeleteFile(path));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(DeleteFile(path));
    EXPECT_FALSE(DeleteFile("/")) << "a folder";
}

}  // namespace
