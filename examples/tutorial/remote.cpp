// A remote control for a robot: each line of input is a speed and a turn, as in "50 -10", until the next one.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "host/printable.h"

#include <chrono>
#include <csignal>
#include <iostream>
#include <poll.h>
#include <thread>
#include <unistd.h>

using tav_c_api_impl::C_TAV_Bluetooth;

// Lines of the standard input, for who does not want to wait for them.
class C_Input
{
public:
    // Waits up to `timeout` ms for a line; without one, `line` is as it was. False at the end.
    bool Read(std::string& line, int timeout)
    {
        char bytes[1000];
        pollfd input = {STDIN_FILENO, POLLIN, 0};
        if (m_Bytes.find('\n') == std::string::npos && poll(&input, 1, timeout) == 1) {
            const ssize_t count = read(STDIN_FILENO, bytes, sizeof(bytes));
            if (count <= 0) return false;
            m_Bytes.append(bytes, static_cast<std::size_t>(count));
        }
        const std::size_t end = m_Bytes.find('\n');
        if (end == std::string::npos) return true;
        line = m_Bytes.substr(0, end);
        m_Bytes.erase(0, end + 1);
        return true;
    }

private:
    std::string m_Bytes;  // that are no line yet, and lines that are not read yet
};

// Sends a command, and waits for its own answer. It connects if need be.
static bool Send(C_TAV_Bluetooth& bluetooth, const std::string& robot, int number, const std::string& command)
{
    std::string answer;
    return bluetooth.SendMsg_TAV_String(robot, "drive", std::to_string(number) + ' ' + command) &&
           bluetooth.ReadMsg_TAV_String(robot, "done", answer, 100, 1000) >= 0 && answer == std::to_string(number);
}

static void Hang_Up(C_TAV_Bluetooth& bluetooth, const std::string& robot)
{
    const int index = bluetooth.isConnected(robot);
    if (index >= 0) bluetooth.Disconnect(bluetooth.m_ScanDevices[static_cast<std::size_t>(index)].Socket);
    std::this_thread::sleep_for(std::chrono::seconds(1));  // connecting again at once is refused
}

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::cerr << "usage: remote NAME    (the brick that runs robot)\n";
        return 1;
    }
    const std::string robot = argv[1];
    signal(SIGPIPE, SIG_IGN);
    C_TAV_Bluetooth bluetooth;
    C_Input input;
    std::string done;
    std::string command = "0 0";
    // The same once more when no line comes: a robot that hears nothing stops.
    for (int number = 0; input.Read(command, 200); ++number) {
        if (!Send(bluetooth, robot, number, command)) {
            std::cout << tav_host::Printable(robot) << " does not answer" << std::endl;
            Hang_Up(bluetooth, robot);
        } else if (command != done) {
            std::cout << tav_host::Printable(robot) << " does '" << command << "'" << std::endl;
            done = command;
        }
    }
    Hang_Up(bluetooth, robot);
}
