// What the test programs share: the double of api/, the lines it takes, sockets without Bluetooth, a project folder.
#pragma once

#include "api/tav_c_api.h"
#include "sim/air.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

// The double writes log lines and deleted files to the trace of the air, in one order with the Bluetooth calls.
extern std::string g_BrickName;  // this brick's own name, "AB" at first; empty: it has none
extern bool g_LogOff;            // log lines are dropped before anything is allocated for them

// "0C 00 61" gives three bytes.
std::string Bytes(const std::string& hex);

// The log lines in the trace, dumps included: those that start with "C_TAV_Bluetooth::" or end in a line break.
std::vector<std::string> Log_Lines();

// The lines of an operation from its steps: "Start|1(4)" gives two, an empty text none.
std::vector<std::string> Lines_Of(const std::string& operation, const std::string& steps);

// Two connected sockets, closed at the end unless they are -1 by then.
struct S_SocketPair
{
    int Near = -1;
    int Far = -1;

    S_SocketPair();
    ~S_SocketPair();
    S_SocketPair& operator=(S_SocketPair&&) = delete;  // nor copied

    void Send(const std::string& bytes) const;  // from Far, whole
    std::string Receive_All() const;            // what is waiting at Far
    bool Is_Ended() const;                      // Near was closed or shut down, and nothing is waiting at Far
};

// A working directory of its own beside the project folders; removed at the end.
class C_ProjectFolder
{
public:
    static constexpr const char* CARD = "../prjs/SD_Card/";
    static constexpr const char* BRICK = "../prjs/";

    explicit C_ProjectFolder(bool hasCard = true);
    ~C_ProjectFolder();
    C_ProjectFolder& operator=(C_ProjectFolder&&) = delete;

    // The device list file in CARD or BRICK; nothing when there is none.
    void Write_List(const std::string& folder, const std::string& bytes) const;
    std::optional<std::string> Read_List(const std::string& folder) const;

private:
    std::filesystem::path m_Before = std::filesystem::current_path();
    std::string m_Root = std::filesystem::temp_directory_path() / "tav_XXXXXX";
};
