// Puts a program on the air as one brick, as the environment says, before its main starts (libtav_air.so only).
#include "sim/internals.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <unistd.h>

namespace {

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
        unsigned long channel = 0;
        if (equals == std::string::npos || !tav_air::Parse_Number(line.substr(equals + 1), channel) || channel > 30)
            Refuse("TAV_AIR_SERVICES", "'" + line + "' is not NAME[|DESCRIPTION[|PROVIDER]]=CHANNEL, channel 0 to 30");
        std::istringstream texts(line.substr(0, equals));
        tav_air::S_Service& service = services.emplace_back();
        std::getline(texts, service.Name, '|');
        std::getline(texts, service.Description, '|');
        std::getline(texts, service.Provider, '|');
        service.Channel = static_cast<int>(channel);
    }
    return services;
}

__attribute__((constructor)) void Start()
{
    const std::string speedText = Get_Variable("TAV_AIR_SPEED", "1");
    char* end = nullptr;
    const double speed = strtod(speedText.c_str(), &end);
    if (speedText.empty() || *end != 0 || !(speed >= 0.001 && speed <= 1e6))
        Refuse("TAV_AIR_SPEED", "'" + speedText + "' is not a number from 0.001 to 1000000");
    const std::string shared = Get_Variable("TAV_AIR_SHARED");
    if (!shared.empty() && shared != "0" && shared != "1")
        Refuse("TAV_AIR_SHARED", "'" + shared + "' is neither 0 nor 1");
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
    brick.Address = tav_air::Get_Text(tav_air::Get_Binary(address));  // as it is written everywhere
    if (bachk(address.c_str()) < 0)
        Refuse("TAV_AIR_ADDRESS", "'" + address + "' is not an address like 02:00:00:00:00:01");
    brick.Services = Parse_Services(Get_Variable("TAV_AIR_SERVICES"));
    const std::string word = tav_air::Set_State(brick, Get_Variable("TAV_AIR_STATE"));
    if (!word.empty()) Refuse("TAV_AIR_STATE", "'" + word + "' is none of down, absent, hidden, nameless, no-sdp");
    const std::string recording = Get_Variable("TAV_AIR_RECORDING");
    const int error = recording.empty() ? 0 : tav_air::Start_Recording(recording, brick).second;
    if (error) Refuse("TAV_AIR_RECORDING", recording + ": " + strerror(error));
    if (!brick.Name.empty() && !tav_air::Put(brick))  // without a name there is no adapter
        Refuse("TAV_AIR_BRICK", "another user has a brick " + brick.Address + " on the air " + air);
}

}  // namespace
