// BlueZ's library runs above the sockets as it is. These are its calls by the names that traces and faults have.
#include "sim/internals.h"

#include <bluetooth/hci_lib.h>
#include <bluetooth/sdp.h>
#include <bluetooth/sdp_lib.h>
#include <cerrno>

using namespace tav_air;

namespace {

// Calls what it stands in front of, as part of one call of the program.
template <typename RESULT, typename... ARGUMENTS>
RESULT Call(RESULT (*next)(ARGUMENTS...), ARGUMENTS... arguments)
{
    const C_Inside inside;
    return next(arguments...);
}

}  // namespace

extern "C" {

int hci_devinfo(int adapter, hci_dev_info* info)
{
    static int (*const next)(int, hci_dev_info*) = S_Next{"hci_devinfo"};
    return Fails("hci_devinfo", std::to_string(adapter)) ? -1 : Call(next, adapter, info);
}

int hci_get_route(bdaddr_t* address)
{
    static int (*const next)(bdaddr_t*) = S_Next{"hci_get_route"};
    return Fails("hci_get_route") ? -1 : Call(next, address);
}

int hci_open_dev(int adapter)
{
    static int (*const next)(int) = S_Next{"hci_open_dev"};
    return Fails("hci_open_dev", std::to_string(adapter)) ? -1 : Call(next, adapter);
}

int hci_close_dev(int fd)
{
    static int (*const next)(int) = S_Next{"hci_close_dev"};
    const int error = Begin("hci_close_dev", "", fd).Error;
    const int result = Call(next, fd);  // also if it is told to fail
    return error ? Fail(error) : result;
}

int hci_inquiry(int adapter, int length, int maxResponses, const std::uint8_t* code, inquiry_info** responses,
                long flags)
{
    static int (*const next)(int, int, int, const std::uint8_t*, inquiry_info**, long) = S_Next{"hci_inquiry"};
    if (Fails("hci_inquiry", std::to_string(adapter) + ", " + std::to_string(length) + ", " +
                                 std::to_string(maxResponses) + ", " + std::to_string(flags)))
        return -1;
    return Call(next, adapter, length, maxResponses, code, responses, flags);
}

int hci_read_remote_name(int fd, const bdaddr_t* address, int size, char* name, int timeout)
{
    static int (*const next)(int, const bdaddr_t*, int, char*, int) = S_Next{"hci_read_remote_name"};
    if (Fails("hci_read_remote_name", Get_Text(*address), fd)) return -1;
    return Call(next, fd, address, size, name, timeout);
}

int hci_read_local_name(int fd, int size, char* name, int timeout)
{
    static int (*const next)(int, int, char*, int) = S_Next{"hci_read_local_name"};
    return Fails("hci_read_local_name", "", fd) ? -1 : Call(next, fd, size, name, timeout);
}

sdp_session_t* sdp_connect(const bdaddr_t* own, const bdaddr_t* address, std::uint32_t flags)
{
    static sdp_session_t* (*const next)(const bdaddr_t*, const bdaddr_t*, std::uint32_t) = S_Next{"sdp_connect"};
    return Fails("sdp_connect", Get_Text(*address)) ? nullptr : Call(next, own, address, flags);
}

int sdp_service_search_attr_req(sdp_session_t* session, const sdp_list_t* search, sdp_attrreq_type_t type,
                                const sdp_list_t* attributes, sdp_list_t** responses)
{
    static int (*const next)(sdp_session_t*, const sdp_list_t*, sdp_attrreq_type_t, const sdp_list_t*, sdp_list_t**) =
        S_Next{"sdp_service_search_attr_req"};
    if (Fails("sdp_service_search_attr_req", "", session->sock)) return -1;
    return Call(next, session, search, type, attributes, responses);
}

int sdp_close(sdp_session_t* session)
{
    static int (*const next)(sdp_session_t*) = S_Next{"sdp_close"};
    const int error = Begin("sdp_close", "", session->sock).Error;
    const int result = Call(next, session);
    return error ? Fail(error) : result;
}

}  // extern "C"
