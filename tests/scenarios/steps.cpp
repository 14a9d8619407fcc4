#include "tests/scenarios/scenario.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <unistd.h>

std::string Get_Address(const std::string& name)
{
    if (name == "Lamp") return "02:00:00:00:00:21";
    if (name == "Ghost") return "02:00:00:00:00:22";
    if (name == "Nobody") return "02:00:00:00:00:99";
    return "02:00:00:00:00:0" + name.substr(name.size() - 1);  // Robot1 to Robot8
}

// ---- Steps ----------------------------------------------------------------------------------------------------------

S_Steps Make_Step(const std::string& who, const std::string& result, const std::string& log,
                  std::function<std::string(S_Robot&)> action, int line)
{
    S_Step step;
    step.Who = who;
    step.Do = std::move(action);
    step.Result = result;
    step.Log = log;
    step.Line = line;
    return {step};
}

S_Steps Shell(const std::string& who, const std::string& command, const std::string& result, int line)
{
    const auto run = [command](S_Robot&) {
        std::string said;
        FILE* const pipe = popen(("{ " + command + "; } 2>&1").c_str(), "r");
        for (int byte; pipe && (byte = fgetc(pipe)) != EOF;)
            said += static_cast<char>(byte);
        const int status = pipe ? pclose(pipe) : -1;
        if (status == 0) return said;
        std::cerr << said;
        return "status " + std::to_string(status);
    };
    return Takes(0, 60, Do(who, "..." + result, run, line));
}

namespace {

S_Steps Make_Command(const std::string& who, const std::string& command)
{
    S_Step step;
    step.Who = who;
    step.Command = command;
    return {step};
}

}  // namespace

S_Steps Pause(double seconds)
{
    return Make_Command("pause", std::to_string(seconds));
}

S_Steps Radio(const std::string& command)
{
    return Make_Command("radio", command);
}

S_Steps Kill(const std::string& who)
{
    return Make_Command(who, "kill");
}

S_Steps Meanwhile(S_Steps steps)
{
    steps[0].Begins = true;
    return steps;
}

S_Steps Takes(double least, double most, S_Steps steps)
{
    steps[0].Least = least;
    steps[0].Most = most;
    return steps;
}

S_Steps Only(E_Place place, S_Steps steps)
{
    for (S_Step& step : steps)
        step.Places = place;
    return steps;
}

S_Steps Join(std::initializer_list<S_Steps> parts)
{
    S_Steps steps;
    for (const S_Steps& part : parts)
        steps.insert(steps.end(), part.begin(), part.end());
    return steps;
}

// ---- The brick ------------------------------------------------------------------------------------------------------

// A socket's number is of no interest.
static std::string Get_Result(int socket)
{
    return socket >= 0 ? "#" : "-1";
}

std::string S_Robot::Open(unsigned char channel)
{
    return Get_Result(Listening = OpenServer(channel));
}

std::string S_Robot::Accept()
{
    return Get_Result(Link = AcceptClient(Listening, 25000));
}

std::string S_Robot::Reach(const std::string& name, unsigned char channel, unsigned long timeout)
{
    Add_BT_Device(name, Get_Address(name), -1, 0);
    return Dial(name, channel, timeout);
}

std::string S_Robot::Dial(const std::string& name, unsigned char channel, unsigned long timeout)
{
    return Get_Result(Link = Connect(name, channel, timeout));
}

bool S_Robot::Hang_Up()
{
    return Disconnect(Link) || CloseClient(Link);
}

bool S_Robot::Say(const std::string& text)
{
    return _SendMsg_TAV_String(Link, "id", text);
}

bool S_Robot::Say_True()
{
    return _SendMsg_TAV_Bool(Link, "id", true);
}

bool S_Robot::Say_Data(const std::string& data)
{
    const auto* const bytes = reinterpret_cast<const unsigned char*>(data.data());
    return _SendMsg_TAV_Data(Link, "id", bytes, static_cast<unsigned int>(data.size()));
}

bool S_Robot::Say_Classic(const std::string& text)
{
    return _SendMsg_TAVOrg_String(Link, "abc", text);
}

std::string S_Robot::Read_Text(const std::string& from, unsigned int size, unsigned long timeout)
{
    std::string text;
    const int result = _ReadMsg_TAV_String(Link, from, "id", text, size, timeout);
    return Text(result) + " " + text;
}

std::string S_Robot::Read_Data(const std::string& from, unsigned int size, unsigned long timeout)
{
    std::string data;
    const int result = _ReadMsg_TAV_Data(Link, from, "id", data, size, timeout);
    return Text(result) + " " + data;
}

std::string S_Robot::Read_Classic(unsigned int size, unsigned long timeout)
{
    std::string text;
    const int result = _ReadMsg_TAVOrg_String(Link, "", "abc", text, size, timeout);
    return Text(result) + " " + text;
}

std::string S_Robot::Read_Bool(const std::string& from, unsigned long timeout)
{
    bool value = false;
    const bool result = _ReadMsg_TAV_Bool(Link, from, "id", value, timeout);
    return Text(result) + (result ? " " + Text(value) : "");
}

std::string S_Robot::Read_ClassicBool(unsigned long timeout)
{
    bool value = false;
    const bool result = _ReadMsg_TAVOrg_Bool(Link, "", "abc", value, timeout);
    return Text(result) + (result ? " " + Text(value) : "");
}

int S_Robot::Receive(unsigned int size, unsigned long timeout)
{
    std::string buffer(size, ' ');
    return ReadData(Link, buffer.data(), size, timeout);
}

std::string S_Robot::Receive_All()
{
    char buffer[1024];
    int sum = 0;
    for (int came; (came = ReadData(Link, buffer, sizeof(buffer), 30000)) > 0;)
        sum += came;
    return Text(sum) + " " + strerrorname_np(errno);
}

std::string S_Robot::Devices() const
{
    std::vector<std::string> texts;
    texts.reserve(m_ScanDevices.size());
    for (const auto& device : m_ScanDevices)
        texts.push_back(device.Name + " " + device.AddrText);
    std::sort(texts.begin(), texts.end());
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : ", ") + text;
    return all;
}

std::string S_Robot::Clients(std::size_t size)
{
    std::string all;
    for (int i = 0; i < 500 && all.size() < size; ++i) {
        usleep(10000);
        all.clear();
        for (const auto& client : m_ServerClients[m_ServerSocket])
            all += (all.empty() ? "Robot" : " Robot") + client.AddrText.substr(client.AddrText.size() - 1);
    }
    return all;
}
