// This brick's name, and the removal of a file, for stand-alone programs.
//
//   TAV_BRICK_NAME  the name; else it is that of the adapter, else that of the host
#include "api/tav_c_api.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <unistd.h>

namespace tav_c_api_impl {

namespace {

constexpr int HCI_TIMEOUT_MS = 1000;

// The name of the adapter that the module takes, empty if there is none. Asked until it is known, then kept.
std::string Get_AdapterName()
{
    static std::mutex mutex;
    static std::string known;
    const std::lock_guard lock(mutex);
    if (!known.empty()) return known;
    const int adapter = hci_open_dev(hci_get_route(nullptr));
    if (adapter < 0) return "";
    char name[249] = {};
    if (hci_read_local_name(adapter, sizeof(name) - 1, name, HCI_TIMEOUT_MS) == 0) known = name;
    hci_close_dev(adapter);
    return known;
}

}  // namespace

bool Get_TAVBrickName(std::string& name)
{
    const char* const given = getenv("TAV_BRICK_NAME");
    name = given && *given ? given : Get_AdapterName();
    if (!name.empty()) return true;
    char host[256] = {};
    if (gethostname(host, sizeof(host) - 1) == 0) name = host;
    return !name.empty();
}

bool DeleteFile(const std::string& path)
{
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

}  // namespace tav_c_api_impl
