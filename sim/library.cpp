// BlueZ's library runs above the sockets as it is. These are its calls by the names that traces and faults have.
#include "sim/internals.h"

#include <bluetooth/hci_lib.h>
#include <bluetooth/sdp.h>
#include <bluetooth/sdp_lib.h>

using namespace tav_air;

namespace {

// Calls what stands behind this function, as part of one call of the program.
template <typename RESULT, typename... PARAMETERS, typename... ARGUMENTS>
RESULT Call(const char* name, RESULT (*)(PARAMETERS...), ARGUMENTS... arguments)
{
    RESULT (*const next)(PARAMETERS...) = S_Next{name};
    ++t_Inside;
    const RESULT result = next(arguments...);
    --t_Inside;
    return result;
}

// Closes also if it is told to fail.
template <typename CLOSE, typename WHAT>
int Call_Close(const char* name, CLOSE* close, int fd, WHAT what)
{
    const int error = Begin(name, "", fd).Error;
    const int result = Call(name, close, what);
    return error ? Fail(error) : result;
}

}  // namespace

extern "C" {

int hci_devinfo(int adapter, hci_dev_info* info)
{
    return Fails(__func__, std::to_string(adapter)) ? -1 : Call(__func__, hci_devinfo, adapter, info);
}

int hci_get_route(bdaddr_t* address)
{
    return Fails(__func__) ? -1 : Call(__func__, hci_get_route, address);
}

int hci_open_dev(int adapter)
{
    return Fails(__func__, std::to_string(adapter)) ? -1 : Call(__func__, hci_open_dev, adapter);
}

int hci_close_dev(int fd)
{
    return Call_Close(__func__, hci_close_dev, fd, fd);
}

int hci_inquiry(int adapter, int length, int maxResponses, const std::uint8_t* code, inquiry_info** responses,
                long flags)
{
    const std::string arguments = std::to_string(adapter) + ", " + std::to_string(length) + ", " +
                                  std::to_string(maxResponses) + ", " + std::to_string(flags);
    if (Fails(__func__, arguments)) return -1;
    return Call(__func__, hci_inquiry, adapter, length, maxResponses, code, responses, flags);
}

int hci_read_remote_name(int fd, const bdaddr_t* address, int size, char* name, int timeout)
{
    if (Fails(__func__, Get_Text(*address), fd)) return -1;
    return Call(__func__, hci_read_remote_name, fd, address, size, name, timeout);
}

int hci_read_local_name(int fd, int size, char* name, int timeout)
{
    return Fails(__func__, "", fd) ? -1 : Call(__func__, hci_read_local_name, fd, size, name, timeout);
}

sdp_session_t* sdp_connect(const bdaddr_t* own, const bdaddr_t* address, std::uint32_t flags)
{
    return Fails(__func__, Get_Text(*address)) ? nullptr : Call(__func__, sdp_connect, own, address, flags);
}

int sdp_service_search_attr_req(sdp_session_t* session, const sdp_list_t* search, sdp_attrreq_type_t type,
                                const sdp_list_t* attributes, sdp_list_t** responses)
{
    if (Fails(__func__, "", session->sock)) return -1;
    return Call(__func__, sdp_service_search_attr_req, session, search, type, attributes, responses);
}

int sdp_close(sdp_session_t* session)
{
    return Call_Close(__func__, sdp_close, session->sock, session);
}

}  // extern "C"
