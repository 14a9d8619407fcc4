// The default services for stand-alone programs. Run with TAV_LOG naming a file that does not exist yet.
#include "api/tav_c_api.h"
#include "sim/air.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <string>
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
    ASSERT_EQ(lines.size(), 1003U);
    const std::regex form("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} \\d+ (without a line break 1|with "
                          "one|x{1000}|line \\d+ of a thread)");
    for (std::string line : lines) {
        if (line.find("xxx") != std::string::npos) {
            EXPECT_NE(line.find(longText), std::string::npos);
            line.resize(line.size() - 4000);
        }
        EXPECT_TRUE(std::regex_match(line, form)) << line;
    }
}

TEST(Host, NameOfThisBrick)
{
    ASSERT_TRUE(tav_air::Enter("host-" + std::to_string(getpid()), 1000));
    std::string name;
    char host[256] = {};
    gethostname(host, sizeof(host));
    EXPECT_TRUE(Get_TAVBrickName(name) && name == host) << "without an adapter";
    tav_air::Put({"02:00:00:00:00:01", "Adapter"});
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
}

}  // namespace
