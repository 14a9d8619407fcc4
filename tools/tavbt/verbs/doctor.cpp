// doctor: looks at this brick's own adapter and surroundings. The module has no operations for that, so this source
// asks BlueZ and the kernel itself.
#include "bluetooth/constants.h"
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/adapter.h"
#include "tools/tavbt/link/device_list.h"
#include "tools/tavbt/link/reasons.h"
#include "tools/tavbt/verbs/verbs.h"

#include <algorithm>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/l2cap.h>
#include <bluetooth/rfcomm.h>
#include <bluetooth/sdp.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

namespace tavbt {

using namespace tav_c_api_impl::bluetooth_constants;

namespace {

constexpr int HCI_TIMEOUT_MS = 1000;

enum class E_State
{
    OK,
    WARNING,  // something will not work, the rest does
    PROBLEM
};

class C_Examination
{
public:
    void Find(E_State state, const std::string& check, const std::string& what, const std::string& cure = "")
    {
        constexpr const char* WORDS[] = {"ok", "warning", "problem"};
        constexpr E_Paint PAINTS[] = {E_Paint::GREEN, E_Paint::YELLOW, E_Paint::RED};
        const char* const word = WORDS[static_cast<int>(state)];
        if (state == E_State::PROBLEM) ++m_Problems;
        if (Style().Json) return Print({{"check", check}, {"state", word}, {"what", what}, {"try", cure}});
        const std::string mark = word + std::string(9 - std::string(word).size(), ' ');
        Print(Paint(PAINTS[static_cast<int>(state)], mark, STDOUT_FILENO) +
              Fit(check + ": " + what, mark.size(), STDOUT_FILENO));
        if (!cure.empty()) Print("         -> " + Paint(E_Paint::BOLD, cure, STDOUT_FILENO));
    }

    int Get_Problems() const { return m_Problems; }

private:
    int m_Problems = 0;
};

// A descriptor that is closed with its object.
class C_Probe
{
public:
    C_Probe(int type, int protocol) : m_Socket(socket(AF_BLUETOOTH, type, protocol)) {}
    ~C_Probe()
    {
        if (m_Socket >= 0) close(m_Socket);
    }
    C_Probe(const C_Probe&) = delete;
    C_Probe& operator=(const C_Probe&) = delete;

    int Get() const { return m_Socket; }

private:
    const int m_Socket;
};

// ---- The adapter ----------------------------------------------------------------------------------------------------

// Whether the kernel can do what the module needs of it.
bool Check_Kernel(C_Examination& examination)
{
    const C_Probe probe(SOCK_STREAM, BTPROTO_RFCOMM);
    if (probe.Get() >= 0) return true;
    if (errno == EAFNOSUPPORT)
        examination.Find(E_State::PROBLEM, "kernel", "it has no Bluetooth",
                         "sudo modprobe bluetooth; a container uses the kernel of its host");
    else
        examination.Find(E_State::PROBLEM, "kernel", std::string("it gives no RFCOMM socket: ") + strerror(errno),
                         "sudo modprobe rfcomm");
    return false;
}

std::string Read_Line(const std::filesystem::path& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// True when a switch keeps Bluetooth off.
bool Check_Switches(C_Examination& examination)
{
    std::error_code none;
    for (const auto& entry : std::filesystem::directory_iterator("/sys/class/rfkill", none)) {
        if (Read_Line(entry.path() / "type") != "bluetooth") continue;
        const std::string name = Read_Line(entry.path() / "name");
        if (Read_Line(entry.path() / "hard") == "1")
            examination.Find(E_State::PROBLEM, "switch", "a switch of the device itself keeps " + name + " off",
                             "use the switch or key for flight mode");
        else if (Read_Line(entry.path() / "soft") == "1")
            examination.Find(E_State::PROBLEM, "switch", name + " is blocked by rfkill",
                             "sudo rfkill unblock bluetooth && sudo hciconfig " + name + " up");
        else
            continue;
        return true;
    }
    return false;
}

void Check_Visible(C_Examination& examination, const hci_dev_info& adapter)
{
    const std::string cure = "sudo hciconfig " + std::string(adapter.name) + " piscan";
    if (!Has(adapter, HCI_PSCAN))
        examination.Find(E_State::WARNING, "visible", "other bricks can neither find nor connect to this one", cure);
    else if (!Has(adapter, HCI_ISCAN))
        examination.Find(E_State::WARNING, "visible",
                         "scans of other bricks do not find this one, though they can connect to it", cure);
    else
        examination.Find(E_State::OK, "visible", "other bricks find this one and can connect to it");
}

void Check_Name(C_Examination& examination, const hci_dev_info& adapter)
{
    char buffer[249] = {};
    const int device = hci_open_dev(adapter.dev_id);
    if (device < 0 || hci_read_local_name(device, sizeof(buffer) - 1, buffer, HCI_TIMEOUT_MS) < 0) buffer[0] = 0;
    if (device >= 0) hci_close_dev(device);
    const std::string name = buffer;
    const std::string cure = "sudo hciconfig " + std::string(adapter.name) + " name Robot1";
    const char* const given = getenv("TAV_BRICK_NAME");
    if (name.empty())
        examination.Find(E_State::WARNING, "name", "the adapter has none; other bricks look for names", cure);
    else if (given && *given && name != given)
        examination.Find(E_State::WARNING, "name",
                         "other bricks find " + Quoted(name) + ", but TAV_BRICK_NAME sends under " + Quoted(given) +
                             ": readers that expect one do not take the other",
                         "unset TAV_BRICK_NAME");
    else
        examination.Find(E_State::OK, "name", Quoted(name));
}

// With Simple Pairing on both sides, connections ask for pairing, which the module does not do. Adapters before it do
// not know the question.
void Check_Pairing(C_Examination& examination, const hci_dev_info& adapter)
{
    std::uint8_t mode = 0;
    const int device = hci_open_dev(adapter.dev_id);
    const bool known = device >= 0 && hci_read_simple_pairing_mode(device, &mode, HCI_TIMEOUT_MS) == 0;
    if (device >= 0) hci_close_dev(device);
    if (known && mode != 0)
        examination.Find(E_State::WARNING, "pairing",
                         "Simple Pairing is on: a brick that has it on, too, may refuse the connection",
                         "sudo hciconfig " + std::string(adapter.name) + " sspmode 0");
}

// None when there is nothing to work with.
std::optional<hci_dev_info> Check_Adapter(C_Examination& examination)
{
    if (!Check_Kernel(examination)) return std::nullopt;
    const auto adapter = Find_Adapter();
    if (!adapter) {
        if (!Check_Switches(examination))
            examination.Find(
                E_State::PROBLEM, "adapter", "there is none",
                "plug one in; if one is, its driver or firmware is missing: sudo dmesg | grep -i bluetooth");
        return std::nullopt;
    }
    const std::string name = adapter->name;
    if (!Has(*adapter, HCI_UP)) {
        if (!Check_Switches(examination))
            examination.Find(E_State::PROBLEM, "adapter", name + " is switched off", "sudo hciconfig " + name + " up");
        return std::nullopt;
    }
    char address[18] = {};
    ba2str(&adapter->bdaddr, address);
    examination.Find(E_State::OK, "adapter", name + ", " + address);
    Check_Visible(examination, *adapter);
    Check_Name(examination, *adapter);
    Check_Pairing(examination, *adapter);
    return adapter;
}

// ---- Its surroundings -----------------------------------------------------------------------------------------------

void Check_Channel(C_Examination& examination, const hci_dev_info& adapter, unsigned char channel)
{
    const std::string check = "channel " + std::to_string(channel);
    C_TAV_Bluetooth bluetooth;
    Take_Reason();
    const int server = bluetooth.OpenServer(channel);
    if (server < 0) {
        const S_Failure failure = Explain(Take_Reason(), "", channel);
        return examination.Find(E_State::PROBLEM, check, failure.What, failure.Try);
    }
    close(server);  // the module leaves a server open that never had a client
    // A server of this adapter alone goes before those of any adapter, as the module's are.
    const C_Probe probe(SOCK_STREAM, BTPROTO_RFCOMM);
    sockaddr_rc address{};
    address.rc_family = AF_BLUETOOTH;
    address.rc_bdaddr = adapter.bdaddr;
    address.rc_channel = channel;
    if (bind(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0 && errno == EADDRINUSE)
        examination.Find(E_State::PROBLEM, check,
                         "free, but a server of this adapter has it, too, and gets all clients: obexd, most likely",
                         "systemctl --user mask --now obex");
    else
        examination.Find(E_State::OK, check, "free");
}

void Check_List(C_Examination& examination)
{
    const std::string folder = Get_ListFolder();
    if (folder.empty())
        examination.Find(E_State::WARNING, "device list",
                         "no folder to keep it in, so that each connection by name scans first", MAKE_LIST_FOLDER);
    else if (access(folder.c_str(), W_OK | X_OK) != 0)
        examination.Find(E_State::WARNING, "device list", folder + " is not writable: scans are not kept",
                         "sudo chown $USER " + folder);
    else if (const std::string file = Get_ListFile(); !file.empty() && !Find_ListFlaw(file).empty())
        examination.Find(E_State::WARNING, "device list", file + Find_ListFlaw(file), "tavbt scan");
    else
        examination.Find(E_State::OK, "device list", "kept in " + folder + DEVICE_FILE);
}

bool Runs(const std::string& program)
{
    std::error_code none;
    for (const auto& process : std::filesystem::directory_iterator("/proc", none))
        if (Read_Line(process.path() / "comm") == program) return true;
    return false;
}

// An SDP server has the L2CAP channel of SDP; ordinary users may not try that, and look for the usual one.
void Check_SdpServer(C_Examination& examination)
{
    const C_Probe probe(SOCK_SEQPACKET, BTPROTO_L2CAP);
    sockaddr_l2 address{};
    address.l2_family = AF_BLUETOOTH;
    address.l2_psm = htobs(SDP_PSM);
    const bool bound = bind(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    if (!bound && (errno == EADDRINUSE || Runs("bluetoothd")))
        examination.Find(E_State::OK, "SDP server", "there is one");
    else
        examination.Find(E_State::WARNING, "SDP server",
                         "there is none: other bricks cannot list this one's services; messages do not need it",
                         "only for that: sudo systemctl start bluetooth (package bluez), then doctor again");
}

void Run_Doctor()
{
    C_Examination examination;
    const auto adapter = Check_Adapter(examination);
    if (adapter) {
        Check_Channel(examination, *adapter, CLASSIC_CHANNEL);
        Check_Channel(examination, *adapter, NAMED_CHANNEL);
    }
    Check_List(examination);
    if (adapter) Check_SdpServer(examination);
    if (!adapter) throw S_Failure{NO_ADAPTER, ""};
    if (examination.Get_Problems() > 0) throw S_Failure{FAILED, ""};
}

}  // namespace

void Add_Doctor(CLI::App& app)
{
    CLI::App& verb =
        Add_Verb(app, "doctor",
                 "Looks at everything that usually goes wrong on this brick, and says what to type. Changes nothing. "
                 "What it warns of does not count as a failure.",
                 "tavbt doctor\n"
                 "tavbt doctor --json");
    On_Run(verb, Run_Doctor);
}

}  // namespace tavbt
