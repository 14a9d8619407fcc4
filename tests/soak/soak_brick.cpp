// A brick of the soak (scripts/soak): a server that never ends, or a client whose program comes and goes.
//   soak_brick serve SECONDS EVERY                  answers each message with what it says
//   soak_brick call NUMBER SECONDS EVERY PAUSE      runs a life after the other as a client of Robot1
// Each prints a line EVERY seconds, of its kind, its age in s, and what is counted (Print). PAUSE is how long a client
// waits between messages at most, in ms. A message tells its client, session and number, and by them the rest of it:
// both ends know of each message whether it is whole, and whether it is the next one.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/descriptors.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <poll.h>
#include <random>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using tav_c_api_impl::C_TAV_Bluetooth;
using tav_c_api_impl::S_BT_ScanDevice;

namespace {

constexpr const char* SERVER = "Robot1";
constexpr const char* ADDRESS = "02:00:00:00:00:0";  // and the brick's number
constexpr const char* ID = "soak";
constexpr unsigned char NAMED = 16, CLASSIC = 1;
constexpr unsigned int MAX_SIZE = 900;
constexpr int LASTING = 2;  // the client whose program never ends
constexpr int SHORTEST_LIFE_S = 5, LONGEST_LIFE_S = 40;
constexpr unsigned int LONGEST_SESSION = 200;  // messages

using Clock = std::chrono::steady_clock;
const Clock::time_point g_Start = Clock::now();
std::mt19937 g_Random{std::random_device{}()};

double Get_Age()
{
    return std::chrono::duration<double>(Clock::now() - g_Start).count();
}

unsigned int Draw(unsigned int least, unsigned int most)
{
    return std::uniform_int_distribution<unsigned int>(least, most)(g_Random);
}

// ---- What is counted ------------------------------------------------------------------------------------------------

// In memory that a client's supervisor shares with its lives, so that killing one loses nothing.
struct S_Counts
{
    std::atomic<unsigned long> Connections, Refused, Sent, Answered, Cut, Wrong;
    std::atomic<unsigned long> Clients;                         // now, of the server
    std::atomic<unsigned long> MemoryKb, Descriptors, Threads;  // of the process that does the work
};

void Look_AtMyself(S_Counts& counts)
{
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        unsigned long number = 0;
        if (word == "VmRSS:" && status >> number) counts.MemoryKb = number;
        if (word == "Threads:" && status >> number) counts.Threads = number;
    }
    const std::filesystem::directory_iterator all("/proc/self/fd");
    counts.Descriptors = static_cast<unsigned long>(std::distance(begin(all), end(all))) - 1;  // that of the look
}

void Print(const char* kind, const S_Counts& counts)
{
    printf(
        "soak %s age %.0f connections %lu refused %lu sent %lu answered %lu cut %lu wrong %lu clients %lu memory %lu "
        "descriptors %lu threads %lu\n",
        kind, Get_Age(), counts.Connections.load(), counts.Refused.load(), counts.Sent.load(), counts.Answered.load(),
        counts.Cut.load(), counts.Wrong.load(), counts.Clients.load(), counts.MemoryKb.load(),
        counts.Descriptors.load(), counts.Threads.load());
    fflush(stdout);
}

// ---- Messages -------------------------------------------------------------------------------------------------------

struct S_Heading
{
    unsigned int Client = 0, Session = 0, Number = 0;
};

std::string Build(const S_Heading& heading)
{
    char text[64];
    snprintf(text, sizeof(text), "%u %u %u ", heading.Client, heading.Session, heading.Number);
    const std::size_t head = strlen(text);
    std::minstd_rand random(heading.Session * 31 + heading.Number);
    std::string message = text + std::string(random() % (MAX_SIZE - head), ' ');
    for (std::size_t i = head; i < message.size(); ++i)
        message[i] = static_cast<char>('a' + random() % 26);
    // Such a length of a classic message has a zero byte in it that its reader takes for a stray one.
    if ((message.size() + 1 + std::strlen(ID) + 8) % 256 == 0) message += 'a';
    return message + ';';
}

enum class E_Check
{
    WHOLE,
    CUT,
    WRONG
};

E_Check Check(const std::string& text, const std::string& expected)
{
    if (text == expected) return E_Check::WHOLE;
    return expected.compare(0, text.size(), text) == 0 ? E_Check::CUT : E_Check::WRONG;
}

bool Send(C_TAV_Bluetooth& bluetooth, int socket, unsigned char channel, const std::string& text)
{
    if (channel == CLASSIC) return bluetooth._SendMsg_TAVOrg_String(socket, ID, text);
    return bluetooth._SendMsg_TAV_String(socket, ID, text);
}

bool Read(C_TAV_Bluetooth& bluetooth, int socket, unsigned char channel, const std::string& from, std::string& text,
          unsigned long timeout)
{
    if (channel == CLASSIC) return bluetooth._ReadMsg_TAVOrg_String(socket, from, ID, text, MAX_SIZE + 1, timeout) >= 0;
    return bluetooth._ReadMsg_TAV_String(socket, from, ID, text, MAX_SIZE + 1, timeout) >= 0;
}

// ---- The server -----------------------------------------------------------------------------------------------------

struct S_Server
{
    C_TAV_Bluetooth Bluetooth;
    std::map<int, S_Heading> Last;  // of each client's socket
    S_Counts Counts{};

    bool Answer(const S_BT_ScanDevice& client, unsigned char channel);
    void Serve(int server, unsigned char channel, const std::vector<pollfd>& sockets);
};

// One message, which must be the next of its session. False: the client is to be closed.
bool S_Server::Answer(const S_BT_ScanDevice& client, unsigned char channel)
{
    std::string text;
    const std::string name = std::string("Robot") + client.AddrText.back();
    if (!Read(Bluetooth, client.Socket, channel, name, text, 0)) return false;
    S_Heading heading;
    S_Heading& last = Last[client.Socket];
    const bool hasHeading = sscanf(text.c_str(), "%u %u %u ", &heading.Client, &heading.Session, &heading.Number) == 3;
    const E_Check check = hasHeading ? Check(text, Build(heading)) : E_Check::CUT;
    if (check == E_Check::CUT) return ++Counts.Cut, false;
    const bool isNext = heading.Number == last.Number + 1 && (last.Number == 0 || heading.Session == last.Session);
    if (check == E_Check::WRONG || !isNext || name.back() - '0' != static_cast<int>(heading.Client)) {
        printf("soak wrong at the server: after %u of session %u came '%s'\n", last.Number, last.Session, text.c_str());
        return ++Counts.Wrong, false;
    }
    last = heading;
    ++Counts.Answered;
    return Send(Bluetooth, client.Socket, channel, text);
}

void S_Server::Serve(int server, unsigned char channel, const std::vector<pollfd>& sockets)
{
    const std::vector<S_BT_ScanDevice> clients = Bluetooth.m_ServerClients[server];
    for (const pollfd& event : sockets) {
        if (event.revents == 0) continue;
        if (event.fd == server) {
            const int client = Bluetooth.AcceptClient(server, 0);
            if (client < 0) continue;
            fcntl(client, F_SETFL, O_NONBLOCK);
            Last[client] = {};
            ++Counts.Connections;
        }
        for (const S_BT_ScanDevice& client : clients)
            if (client.Socket == event.fd && !((event.revents & POLLIN) && Answer(client, channel)))
                Bluetooth.CloseClient(client.Socket);
    }
}

int Run_Server(double seconds, double every)
{
    S_Server server;
    const std::map<int, unsigned char> listening = {{server.Bluetooth.OpenServer(NAMED), NAMED},
                                                    {server.Bluetooth.OpenServer(CLASSIC), CLASSIC}};
    if (listening.count(-1) > 0) return fprintf(stderr, "soak_brick: cannot listen\n"), 1;
    for (double due = every; Get_Age() < seconds;) {
        std::vector<pollfd> sockets;
        for (const auto& [socket, channel] : listening) {
            sockets.push_back({socket, POLLIN, 0});
            for (const S_BT_ScanDevice& client : server.Bluetooth.m_ServerClients[socket])
                sockets.push_back({client.Socket, POLLIN, 0});
        }
        poll(sockets.data(), sockets.size(), 100);
        for (const auto& [socket, channel] : listening)
            server.Serve(socket, channel, sockets);
        if (Get_Age() < due) continue;
        due += every;
        server.Counts.Clients = sockets.size() - listening.size();
        Look_AtMyself(server.Counts);
        Print("server", server.Counts);
    }
    return 0;
}

// ---- Clients --------------------------------------------------------------------------------------------------------

// Calls that fail on the air; the lab knows nothing of it.
std::string Draw_Faults(unsigned int count, unsigned int last)
{
    static constexpr const char* FAULTS[] = {"send=short:60",     "recv=short:50",        "send=EPIPE",
                                             "recv=ECONNRESET",   "connect=ECONNREFUSED", "connect=EHOSTUNREACH",
                                             "socket=EMFILE",     "select=EINTR",         "fcntl=EINTR",
                                             "shutdown=ENOTCONN", "send=vanish"};
    std::string rules;
    for (unsigned int i = 0; i < count; ++i) {
        const std::string fault = FAULTS[Draw(0, std::size(FAULTS) - 1)];
        const std::size_t split = fault.find('=');
        const bool isRare = fault[0] == 'c' || fault[1] == 'o' || fault[0] == 'f';  // a few calls for each connection
        rules += fault.substr(0, split) + ":" + std::to_string(Draw(1, isRare ? last / 100 + 2 : last)) +
                 fault.substr(split) + " ";
    }
    return rules;
}

// Connects, and sends a session of numbered messages, each when the last one has been answered.
void Talk(C_TAV_Bluetooth& bluetooth, S_Counts& counts, S_Heading heading, unsigned int pauseMs, double end)
{
    const unsigned char channel = Draw(0, 1) ? NAMED : CLASSIC;
    const int socket = bluetooth.Connect(SERVER, channel, 20000);
    if (socket < 0) {
        ++counts.Refused;
        sleep(1);
        return;
    }
    ++counts.Connections;
    for (unsigned int left = Draw(1, LONGEST_SESSION); left > 0 && Get_Age() < end; --left) {
        ++heading.Number;
        const std::string message = Build(heading);
        if (!Send(bluetooth, socket, channel, message)) break;
        ++counts.Sent;
        std::string answer;
        if (!Read(bluetooth, socket, channel, SERVER, answer, 30000)) break;
        const E_Check check = Check(answer, message);
        if (check == E_Check::WRONG) printf("soak wrong at a client: '%s'\n", answer.c_str());
        ++(check == E_Check::WHOLE ? counts.Answered : check == E_Check::CUT ? counts.Cut : counts.Wrong);
        if (check != E_Check::WHOLE) break;
        usleep(Draw(0, pauseMs) * 1000);
    }
    bluetooth.Disconnect(socket);
    usleep(Draw(400, 1000) * 1000);  // until it can be connected anew
}

int Run_Life(unsigned int number, S_Counts& counts, double seconds, unsigned int pauseMs)
{
    C_TAV_Bluetooth bluetooth;
    bluetooth.Add_BT_Device(SERVER, std::string(ADDRESS) + "1", -1, 0);
    while (Get_Age() < seconds) {
        Talk(bluetooth, counts, {number, Draw(1, 1000000000), 0}, pauseMs, seconds);
        Look_AtMyself(counts);
    }
    return 0;
}

// A process for each life, so that faults are drawn anew. Half of them are killed, wherever they are then.
pid_t Start_Life(unsigned int number, int memory, double seconds, unsigned int pauseMs)
{
    const std::string words[] = {std::to_string(number), std::to_string(memory), std::to_string(seconds),
                                 std::to_string(pauseMs)};
    const unsigned int messages = static_cast<unsigned int>(seconds * 1000) / (pauseMs / 2 + 5);
    // The one that lasts is never to fall silent.
    std::string faults = number == LASTING ? Draw_Faults(messages / 500, messages) : Draw_Faults(4, messages);
    for (std::size_t at; number == LASTING && (at = faults.find("vanish")) != std::string::npos;)
        faults.replace(at, strlen("vanish"), "EIO");
    const pid_t life = fork();
    if (life != 0) return life;
    setenv("TAV_AIR_FAULTS", faults.c_str(), 1);
    execl("/proc/self/exe", "soak_brick", "live", words[0].c_str(), words[1].c_str(), words[2].c_str(),
          words[3].c_str(), nullptr);
    _exit(1);
}

S_Counts& Map_Counts(int memory)
{
    void* const mapped = mmap(nullptr, sizeof(S_Counts), PROT_READ | PROT_WRITE, MAP_SHARED, memory, 0);
    if (mapped == MAP_FAILED) perror("soak_brick: mmap"), exit(1);
    return *static_cast<S_Counts*>(mapped);
}

int Run_Client(unsigned int number, double seconds, double every, unsigned int pauseMs)
{
    const int memory = memfd_create("counts", 0);
    if (ftruncate(memory, sizeof(S_Counts)) != 0) return perror("soak_brick: ftruncate"), 1;
    const S_Counts& counts = Map_Counts(memory);
    double due = every, end = 0;
    pid_t life = -1;
    while (Get_Age() < seconds) {
        if (life < 0) {
            const double left = seconds - Get_Age();
            end = number == LASTING ? left : std::min<double>(left, Draw(SHORTEST_LIFE_S, LONGEST_LIFE_S));
            life = Start_Life(number, memory, end, pauseMs);
            end = number == LASTING || Draw(0, 1) ? seconds + 60 : Get_Age() + end / 2;  // orderly, or killed by then
        }
        usleep(100000);
        if (Get_Age() > end) kill(life, SIGKILL);
        int status = 0;
        if (waitpid(life, &status, WNOHANG) == life) {
            if (!WIFEXITED(status) && WTERMSIG(status) != SIGKILL)
                printf("soak wrong at client %u: it ended by %s\n", number, strsignal(WTERMSIG(status)));
            life = -1;
        }
        if (Get_Age() < due) continue;
        due += every;
        Print(number == LASTING ? "lasting" : "client", counts);
    }
    if (life > 0) kill(life, SIGKILL);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    signal(SIGPIPE, SIG_IGN);
    tav_host::Limit_Descriptors();
    const std::string verb = argc > 1 ? argv[1] : "";
    const auto number = [&](int i) { return i < argc ? strtod(argv[i], nullptr) : 0; };
    const auto count = [&](int i) { return static_cast<unsigned int>(number(i)); };
    if (verb == "serve" && argc == 4) return Run_Server(number(2), number(3));
    if (verb == "call" && argc == 6) return Run_Client(count(2), number(3), number(4), count(5));
    if (verb == "live" && argc == 6)
        return Run_Life(count(2), Map_Counts(static_cast<int>(count(3))), number(4), count(5));
    return fprintf(stderr, "soak_brick: see the top of its source\n"), 2;
}
