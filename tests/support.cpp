#include "tests/support.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

std::string g_BrickName = "AB";
bool g_LogOff = false;

namespace tav_c_api {

bool g_isLog_Quorvant_TAV = false;

void WriteLog_Dbg(const char* format, ...)
{
    if (g_LogOff) return;
    char* line = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const bool rendered = vasprintf(&line, format, arguments) >= 0;
    va_end(arguments);
    if (rendered) tav_air::Record(line);
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

std::string Bytes(const std::string& hex)
{
    std::string bytes;
    std::istringstream in(hex);
    for (unsigned int byte = 0; in >> std::hex >> byte;)
        bytes += static_cast<char>(byte);
    return bytes;
}

std::vector<std::string> Log_Lines()
{
    std::vector<std::string> lines;
    for (const std::string& entry : tav_air::Get_Trace())
        if (entry.rfind("C_TAV_Bluetooth::", 0) == 0 || entry.find('\n') != std::string::npos) lines.push_back(entry);
    return lines;
}

std::vector<std::string> Lines_Of(const std::string& operation, const std::string& steps)
{
    std::vector<std::string> lines;
    for (std::size_t from = 0, end = 0; from < steps.size(); from = end + 1) {
        end = std::min(steps.find('|', from), steps.size());
        lines.push_back("C_TAV_Bluetooth::" + operation + " - " + steps.substr(from, end - from));
    }
    return lines;
}

S_SocketPair::S_SocketPair()
{
    int ends[2] = {};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) throw std::runtime_error("socketpair");
    Near = ends[0];
    Far = ends[1];
}

S_SocketPair::~S_SocketPair()
{
    for (const int end : {Near, Far})
        if (end >= 0) close(end);
}

void S_SocketPair::Send(const std::string& bytes) const
{
    if (send(Far, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error("send");
}

std::string S_SocketPair::Receive_All() const
{
    std::string all(1000000, '\0');
    all.resize(static_cast<std::size_t>(std::max<ssize_t>(0, recv(Far, all.data(), all.size(), MSG_DONTWAIT))));
    return all;
}

bool S_SocketPair::Is_Ended() const
{
    char byte = 0;
    return recv(Far, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
}

C_ProjectFolder::C_ProjectFolder(bool hasCard)
{
    if (!mkdtemp(m_Root.data())) throw std::runtime_error("mkdtemp");
    std::filesystem::create_directory(m_Root + "/run");
    std::filesystem::create_directories(m_Root + (hasCard ? "/prjs/SD_Card" : "/prjs"));
    std::filesystem::current_path(m_Root + "/run");
}

C_ProjectFolder::~C_ProjectFolder()
{
    std::error_code ignored;
    std::filesystem::current_path(m_Before, ignored);
    std::filesystem::remove_all(m_Root, ignored);
}

void C_ProjectFolder::Write_List(const std::string& folder, const std::string& bytes) const
{
    std::ofstream(folder + "__BTScan__", std::ios::binary) << bytes;
}

std::optional<std::string> C_ProjectFolder::Read_List(const std::string& folder) const
{
    std::ifstream file(folder + "__BTScan__", std::ios::binary);
    if (!file) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}
