// Which bricks there are: the device list file, and scans.
#pragma once

#include "bluetooth/C_TAV_Bluetooth.h"

#include <string>

namespace tavbt {

using tav_c_api_impl::C_TAV_Bluetooth;
using tav_c_api_impl::S_BT_ScanDevice;

// Where the device list file is, or would be; empty if neither folder is there.
std::string Get_ListFolder();
std::string Get_ListFile();  // the one that would be read; empty: none

// What to type for a folder that keeps the list.
constexpr const char* MAKE_LIST_FOLDER = "mkdir -p ~/bricks/prjs ~/bricks/run && cd ~/bricks/run";

// What is wrong with the device list file, in words behind its path; empty: nothing.
std::string Find_ListFlaw(const std::string& path);

// Takes the devices of the file into the list, if there is one. Throws S_Failure if it is something else, as a FIFO, at
// which the module would wait for ever.
void Read_List(C_TAV_Bluetooth& bluetooth);

// BT_Scan with a progress bar. Throws S_Failure.
void Scan(C_TAV_Bluetooth& bluetooth);

// Index of the brick in the device list: at `address` if that is not empty, else as the device list file says, else as
// a scan finds. Throws S_Failure.
unsigned int Find_Brick(C_TAV_Bluetooth& bluetooth, const std::string& name, const std::string& address);

// The list as results.
void Print_Devices(const C_TAV_Bluetooth& bluetooth);

// The printable name that the list has for an address, else the address.
std::string Get_NameOf(const C_TAV_Bluetooth& bluetooth, const S_BT_ScanDevice& device);

}  // namespace tavbt
