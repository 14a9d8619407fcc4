// Puts a program on the air as one brick, as the environment says, before its main starts, and takes orders while it
// runs (libtav_air.so only).
#include "sim/internals.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::size_t LONGEST_ORDER = 256;

tav_air::S_Brick* g_Brick = nullptr;  // what this program is
int g_Orders = -1;                    // socket that takes orders

[[noreturn]] void Refuse(const char* variable, const std::string& why)
{
    fprintf(stderr, "tav-air: %s: %s\n", variable, why.c_str());
    _exit(2);
}

std::string Get_Variable(const char* name, const std::string& byDefault = "")
{
    const char* const value = getenv(name);
    return value ? value : byDefault;
}

// The address as it is written everywhere; empty when it is none.
std::string Get_Canonical(const std::string& text)
{
    bdaddr_t address{};
    char canonical[18] = {};
    if (bachk(text.c_str()) < 0 || str2ba(text.c_str(), &address) < 0) return "";
    ba2str(&address, canonical);
    return canonical;
}

// NAME[|DESCRIPTION[|PROVIDER]]=CHANNEL, one a line.
std::vector<tav_air::S_Service> Parse_Services(const std::string& text)
{
    std::vector<tav_air::S_Service> services;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.empty()) continue;
        if (line.compare(0, 2, "0x") == 0 && line.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos) {
            services.emplace_back().Hex = line.substr(2);
            continue;
        }
        const std::size_t equals = line.rfind('=');
        const std::string number = equals == std::string::npos ? "" : line.substr(equals + 1);
        const bool valid = !number.empty() && number.size() <= 2 &&
                           number.find_first_not_of("0123456789") == std::string::npos && std::stoi(number) <= 30;
        if (!valid)
            Refuse("TAV_AIR_SERVICES", "'" + line + "' is not NAME[|DESCRIPTION[|PROVIDER]]=CHANNEL, channel 0 to 30");
        std::istringstream texts(line.substr(0, equals));
        tav_air::S_Service& service = services.emplace_back();
        std::getline(texts, service.Name, '|');
        std::getline(texts, service.Description, '|');
        std::getline(texts, service.Provider, '|');
        service.Channel = std::stoi(number);
    }
    return services;
}

void Set_State(tav_air::S_Brick& brick, const std::string& text)
{
    std::istringstream words(text);
    for (std::string word; words >> word;) {
        if (word == "down")
            brick.Powered = false;
        else if (word == "absent")
            brick.Present = false;
        else if (word == "hidden")
            brick.Discoverable = false;
        else if (word == "nameless")
            brick.TellsName = false;
        else if (word == "no-sdp")
            brick.HasSdpServer = false;
        else
            Refuse("TAV_AIR_STATE", "'" + word + "' is none of down, absent, hidden, nameless, no-sdp");
    }
}

// ---- Orders ---------------------------------------------------------------------------------------------------------
//
// tav-air/AIR/ADDRESS!PROCESS is a socket that takes a new TAV_AIR_STATE from programs of the same user, and answers
// when it is in force. Each program of a brick has one.

bool Is_SameUser(int fd)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return tav_air::Real().Getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid == geteuid();
}

void Take_Orders()
{
    for (;;) {
        int order = tav_air::Accept_Caller(g_Orders, -1);
        if (order < 0 && (errno == EINTR || errno == ECONNABORTED)) continue;
        if (order < 0) return;  // the program has closed all descriptors
        order = tav_air::Put_Away(order);
        std::string words(LONGEST_ORDER, '\0');
        const ssize_t count = Is_SameUser(order) ? tav_air::Real().Recv(order, words.data(), words.size(), 0) : -1;
        if (count >= 0) {
            words.resize(static_cast<std::size_t>(count));
            tav_air::S_Brick brick = *g_Brick;
            brick.Powered = brick.Present = brick.Discoverable = brick.TellsName = brick.HasSdpServer = true;
            Set_State(brick, words);
            tav_air::Put(*g_Brick = brick);
            tav_air::Real().Send(order, "done", 4, MSG_NOSIGNAL);
        }
        tav_air::Close_Own(order);
    }
}

// The program's signals stay the program's, and a child of it takes no orders.
void Await_Orders()
{
    g_Orders = tav_air::Open_UnixSocket(SOCK_SEQPACKET);
    const std::string name = g_Brick->Address + "!" + std::to_string(getpid());
    if (tav_air::Bind_Name(g_Orders, name) < 0 || tav_air::Real().Listen(g_Orders, 1) < 0) return;
    pthread_atfork(nullptr, nullptr, [] { tav_air::Close_Own(g_Orders); });
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(Take_Orders).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

__attribute__((constructor)) void Start()
{
    const std::string speedText = Get_Variable("TAV_AIR_SPEED", "1");
    char* end = nullptr;
    const double speed = strtod(speedText.c_str(), &end);
    if (speedText.empty() || *end != 0 || !(speed >= 0.001 && speed <= 1e6))
        Refuse("TAV_AIR_SPEED", "'" + speedText + "' is not a number from 0.001 to 1000000");
    const std::string shared = Get_Variable("TAV_AIR_SHARED");
    if (shared != "" && shared != "0" && shared != "1") Refuse("TAV_AIR_SHARED", "'" + shared + "' is neither 0 nor 1");
    const bool isShared = shared == "1";
    const std::string air = Get_Variable("TAV_AIR", isShared ? "air" : "air-" + std::to_string(geteuid()));
    if (!tav_air::Enter(air, speed, isShared))
        Refuse("TAV_AIR", "'" + air + "' is not 1 to 30 letters, digits, '-', '_' or '.'");
    const std::string wrong = tav_air::Add_Faults(Get_Variable("TAV_AIR_FAULTS"));
    if (!wrong.empty()) Refuse("TAV_AIR_FAULTS", wrong);
    tav_air::S_Brick brick;
    brick.Name = Get_Variable("TAV_AIR_BRICK");
    if (brick.Name.size() > 248) Refuse("TAV_AIR_BRICK", "a name has at most 248 bytes");
    const std::string address = Get_Variable("TAV_AIR_ADDRESS", tav_air::Get_Address(brick.Name));
    brick.Address = Get_Canonical(address);
    if (brick.Address.empty()) Refuse("TAV_AIR_ADDRESS", "'" + address + "' is not an address like 02:00:00:00:00:01");
    brick.Services = Parse_Services(Get_Variable("TAV_AIR_SERVICES"));
    Set_State(brick, Get_Variable("TAV_AIR_STATE"));
    if (brick.Name.empty()) return;  // there is no adapter
    if (!tav_air::Put(brick))
        Refuse("TAV_AIR_BRICK", "another user has a brick " + brick.Address + " on the air " + air);
    g_Brick = new tav_air::S_Brick(brick);
    Await_Orders();
}

}  // namespace
