#include "tests/support.h"

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

std::string g_BrickName = "AB";
bool tav_c_api::g_isLog_Quorvant_TAV = false;

void tav_c_api::WriteLog_Dbg(const char* format, ...)
{
    char* line = nullptr;
    va_list arguments;
    va_start(arguments, format);
    const bool rendered = vasprintf(&line, format, arguments) >= 0;
    va_end(arguments);
    if (rendered) tav_air::Record(line);
    free(line);
}

bool tav_c_api_impl::Get_TAVBrickName(std::string& name)
{
    return !(name = g_BrickName).empty();
}

bool tav_c_api_impl::DeleteFile(const std::string& path)
{
    tav_air::Record("DeleteFile(" + path + ")");
    return std::remove(path.c_str()) == 0;
}

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
        if (entry.rfind("C_TAV_Bluetooth::", 0) == 0 || entry.find('\n') != entry.npos) lines.push_back(entry);
    return lines;
}

std::vector<std::string> Lines_Of(std::initializer_list<std::pair<std::string, std::string>> operations)
{
    std::vector<std::string> lines;
    for (const auto& [operation, steps] : operations) {
        std::istringstream in(operation.empty() ? "" : steps);
        std::string start = "C_TAV_Bluetooth::";
        start.append(operation).append(" - ");
        for (std::string step; std::getline(in, step, '|');)
            lines.push_back(step.find('\n') == step.npos ? start + step : step);
    }
    return lines;
}

std::string S_SocketPair::Receive_All() const
{
    std::string all(1000000, '\0');
    all.resize(static_cast<std::size_t>(std::max<ssize_t>(0, recv(Far, all.data(), all.size(), MSG_DONTWAIT))));
    return all;
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

void C_ProjectFolder::Write_List(const std::string& folder, const std::string& bytes)
{
    std::ofstream(folder + "__BTScan__", std::ios::binary) << bytes;
}

std::optional<std::string> C_ProjectFolder::Read_List(const std::string& folder)
{
    std::ifstream file(folder + "__BTScan__", std::ios::binary);
    if (!file) return std::nullopt;
    return std::string(std::istreambuf_iterator<char>(file), {});
}
