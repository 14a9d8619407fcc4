// What the test programs share. The double of api/ writes log lines and deleted files to the trace of the air, in one
// order with the Bluetooth calls.
#pragma once

#include "api/tav_c_api.h"
#include "sim/air.h"

#include <filesystem>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

// This brick's own name, "AB" at first; empty: it has none.
extern std::string g_BrickName;

// "0C 00 61" gives three bytes.
std::string Bytes(const std::string& hex);

// The log lines in the trace, dumps included: those that start with "C_TAV_Bluetooth::" or end in a line break.
std::vector<std::string> Log_Lines();

// The lines of {"ReadData", "Start(9)|Timeout"}. An operation without a name has none; a dump stands as it is.
std::vector<std::string> Lines_Of(std::initializer_list<std::pair<std::string, std::string>> operations);

// Two connected sockets, closed at the end unless they are -1 by then; Far sends, and receives what is waiting.
struct S_SocketPair
{
    int Ends[2] = {-1, -1};
    int& Near = Ends[0];
    int& Far = Ends[1];

    S_SocketPair() { socketpair(AF_UNIX, SOCK_STREAM, 0, Ends); }
    ~S_SocketPair() { close(Near), close(Far); }
    S_SocketPair(const S_SocketPair&) = delete;
    void Send(const std::string& bytes) const { send(Far, bytes.data(), bytes.size(), 0); }
    std::string Receive_All() const;
};

// A working directory of its own beside the project folders; removed at the end.
class C_ProjectFolder
{
public:
    static constexpr const char* CARD = "../prjs/SD_Card/";
    static constexpr const char* BRICK = "../prjs/";

    explicit C_ProjectFolder(bool hasCard = true);
    ~C_ProjectFolder();
    C_ProjectFolder(const C_ProjectFolder&) = delete;

    // The device list file in CARD or BRICK; nothing when there is none.
    static void Write_List(const std::string& folder, const std::string& bytes);
    static std::optional<std::string> Read_List(const std::string& folder);

private:
    std::filesystem::path m_Before = std::filesystem::current_path();
    std::string m_Root = std::filesystem::temp_directory_path() / "tav_XXXXXX";
};
