// services
#include "tools/tavbt/base/failure.h"
#include "tools/tavbt/base/options.h"
#include "tools/tavbt/base/process.h"
#include "tools/tavbt/base/terminal.h"
#include "tools/tavbt/base/text.h"
#include "tools/tavbt/link/device_list.h"
#include "tools/tavbt/link/reasons.h"
#include "tools/tavbt/verbs/verbs.h"

#include <memory>
#include <nlohmann/json.hpp>

namespace tavbt {

namespace {

constexpr int LAST_RFCOMM_CHANNEL = 30;

struct S_Services_Options
{
    std::string Name;
    std::string Address;
};

void Print_Services(C_TAV_Bluetooth& bluetooth, const std::string& name)
{
    Take_Reason();
    const int count = bluetooth.Get_BT_Services_Count(name);
    if (count < 0) throw Explain(Take_Reason(), name, 0);
    C_Table table({"CHANNEL", "NAME", "DESCRIPTION", "PROVIDER"});
    for (unsigned int i = 0; i < static_cast<unsigned int>(count); ++i) {
        std::string service;
        std::string description;
        std::string provider;
        int channel = 0;
        bluetooth.Get_BT_Services_Name(i, service);
        bluetooth.Get_BT_Services_Description(i, description);
        bluetooth.Get_BT_Services_Provider(i, provider);
        bluetooth.Get_BT_Services_PortRFCOMM(i, channel);
        const bool hasChannel = channel >= 1 && channel <= LAST_RFCOMM_CHANNEL;
        table.Add({hasChannel ? std::to_string(channel) : "-", Printable(service), Printable(description),
                   Printable(provider)},
                  {{"name", service},
                   {"description", description},
                   {"provider", provider},
                   {"channel", hasChannel ? nlohmann::ordered_json(channel) : nlohmann::ordered_json()}});
    }
    table.Print();
    Note(Count_Of(static_cast<std::size_t>(count), "public service"));
}

// An answer of ten bytes can make BlueZ's library loop for ever, and take all memory.
void Run_Services(const S_Services_Options& options)
{
    C_TAV_Bluetooth bluetooth;
    Find_Brick(bluetooth, options.Name, options.Address);
    Run_InChild([&] { Print_Services(bluetooth, options.Name); },
                "the answer of " + Printable(options.Name) + " cannot be taken apart");
}

}  // namespace

void Add_Services(CLI::App& app)
{
    const auto options = std::make_shared<S_Services_Options>();
    CLI::App& verb = Add_Verb(app, "services", "Lists the public services (SDP) of a device.",
                              "tavbt services Robot2\n"
                              "tavbt services Robot2 --address 12:34:56:78:9A:BC");
    Require(Add_Text(verb, "NAME", options->Name, "the device"));
    Add_Address(verb, options->Address);
    On_Run(verb, [options] { Run_Services(*options); });
}

}  // namespace tavbt
