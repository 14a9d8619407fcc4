#include "tests/support.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

std::string g_BrickName = "AB";
bool g_LogOff = false;

namespace tav_c_api {

bool g_isLog_Quorvant_TAV = false;

void WriteLog_Dbg(const char* format, ...)
{
    if (g_LogOff) return;
    va_list arguments;
    va_start(arguments, format);
    char* line = nullptr;
    const int size = vasprintf(&line, format, arguments);
    va_end(arguments);
    if (size < 0) std::abort();
    tav_air::Record(line);
    free(line);
}

}  // namespace tav_c_api

namespace tav_c_api_impl {

bool Get_TAVBrickName(std::string& name)
{
    name = g_BrickName;
    return !name.empty();
}

bool DeleteFile(const std::string& path)
{
    tav_air::Record("DeleteFile(" + path + ")");
    return std::remove(path.c_str()) == 0;
}

}  // namespace tav_c_api_impl

namespace {

const std::string LINE_START = "C_TAV_Bluetooth::";
const std::string LIST_NAME = "__BTScan__";

void Require(bool done, const char* what)
{
    if (!done) throw std::runtime_error(what);
}

}  // namespace

std::string Bytes(const std::string& hex)
{
    std::string bytes;
    for (std::size_t i = 0; i < hex.size(); ++i) {
        if (hex[i] == ' ') continue;
        bytes += static_cast<char>(std::stoi(hex.substr(i++, 2), nullptr, 16));
    }
    return bytes;
}

std::vector<std::string> Log_Lines()
{
    std::vector<std::string> lines;
    for (const std::string& entry : tav_air::Get_Trace())
        if (entry.rfind(LINE_START, 0) == 0 || (!entry.empty() && entry.back() == '\n')) lines.push_back(entry);
    return lines;
}

std::vector<std::string> Lines_Of(const std::string& operation, const std::string& steps)
{
    std::vector<std::string> lines;
    for (std::size_t from = 0; from < steps.size();) {
        const std::size_t end = std::min(steps.find('|', from), steps.size());
        lines.push_back(LINE_START + operation + " - " + steps.substr(from, end - from));
        from = end + 1;
    }
    return lines;
}

int Count_Descriptors()
{
    const std::filesystem::directory_iterator descriptors("/proc/self/fd");
    return static_cast<int>(std::distance(begin(descriptors), end(descriptors)));
}

S_SocketPair::S_SocketPair()
{
    int ends[2] = {};
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    Near = ends[0];
    Far = ends[1];
}

S_SocketPair::~S_SocketPair()
{
    if (Near >= 0) close(Near);
    Close_Far();
}

void S_SocketPair::Send(const std::string& bytes) const
{
    Require(send(Far, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()), "send");
}

std::string S_SocketPair::Receive_All() const
{
    std::string all;
    char part[4096];
    for (ssize_t count = 0; (count = recv(Far, part, sizeof(part), MSG_DONTWAIT)) > 0;)
        all.append(part, static_cast<std::size_t>(count));
    return all;
}

bool S_SocketPair::Is_Ended() const
{
    char byte = 0;
    return recv(Far, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

void S_SocketPair::Close_Far()
{
    if (Far >= 0) close(std::exchange(Far, -1));
}

C_ProjectFolder::C_ProjectFolder(bool hasCard) : m_Before(std::filesystem::current_path())
{
    std::string root = std::filesystem::temp_directory_path() / "tav_XXXXXX";
    Require(mkdtemp(root.data()) != nullptr, "mkdtemp");
    m_Root = root;
    std::filesystem::create_directory(m_Root / "run");
    std::filesystem::create_directories(m_Root / (hasCard ? "prjs/SD_Card" : "prjs"));
    std::filesystem::current_path(m_Root / "run");
}

C_ProjectFolder::~C_ProjectFolder()
{
    std::error_code ignored;
    std::filesystem::current_path(m_Before, ignored);
    std::filesystem::remove_all(m_Root, ignored);
}

void C_ProjectFolder::Write_List(const std::string& folder, const std::string& bytes) const
{
    std::ofstream file(folder + LIST_NAME, std::ios::binary | std::ios::trunc);
    Require(!!(file << bytes), "device list file");
}

std::optional<std::string> C_ProjectFolder::Read_List(const std::string& folder) const
{
    std::ifstream file(folder + LIST_NAME, std::ios::binary);
    if (!file) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}
