/// @file
/// The class C_TAV_Bluetooth and its records. Their comments are the reference: here, as HTML, and as manual pages, of
/// which tav_bluetooth(3) is the first.

/// @class tav_c_api_impl::C_TAV_Bluetooth
/// Bluetooth Classic messaging between bricks, over BlueZ (libbluetooth) and RFCOMM sockets.
///
/// An object finds devices, connects to them, exchanges messages with them, and serves those that connect to it.
///
/// **Results.** Failures are values: false, or -1 where a socket, an index or a count is returned. Nothing throws,
/// short of running out of memory. The reason is in the debug log (api/tav_c_api.h), except for what fails in silence:
/// - Disconnect(), the operations that close clients and servers, and those that only look something up
/// - a thread that does not start, and a receive buffer that no memory is found for
/// - a bool of the named format that is sent without a name of this brick
/// - a message of the named format that does not match, in a bool reader and in one that asks for more than 1024 bytes
/// - a message of either format that is cut behind its id
///
/// **Time-outs.** Milliseconds, unsigned. 0 looks once; the server's reads look again and again for a millisecond.
///
/// **Texts.** Names, message ids and texts are byte strings without NUL, compared exactly (case matters).
///
/// **Threads.** Every operation belongs to the user program's thread, except ReadData() and WriteData(): they touch no
/// field of the object, and any thread may call them. The only other thread is the accept thread of the built-in
/// server. There is no lock and no atomic anywhere: see m_ServerClients.
///
/// **Sockets.** Plain descriptors, 0 or more and below `FD_SETSIZE` (1024); that is not checked, so leave the process
/// its usual limit of 1024 descriptors. Sending on -1 waits for ever. Records do not own their sockets: a connection
/// stays open until an operation that closes it is called.
///
/// **SIGPIPE.** Sending uses no `MSG_NOSIGNAL`: the program decides what `SIGPIPE` does.
///
/// **Linking.** As in `g++ -std=c++17 robot.cpp $(pkg-config --cflags --libs tav-bluetooth-host)`. A program that
/// defines what is declared in api/tav_c_api.h takes `tav-bluetooth` instead.
/// @man{tav_bluetooth}
/// @errors Where a call failed, the log names it and its errno: "C_TAV_Bluetooth::OPERATION - Error in fce CALL(Error
/// Code 16 : Device or resource busy)". The errnos that are named here were seen on Linux 6.1; calls may fail with
/// others. Of all operations:
/// - EAFNOSUPPORT: the kernel has no Bluetooth
/// - EINTR: a signal came during a wait, which is not taken up again
/// - EMFILE: the process has too many descriptors open
#pragma once

#include "bluetooth/tav_version.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/sdp.h>
#include <map>
#include <string>
#include <vector>

/// The Bluetooth module, and what it requires of the surrounding interface under its own name.
namespace tav_c_api_impl {

/// One remote device. Held by value and copied freely; copying copies the socket's number, destroying closes nothing.
/// @alsoman{tav_devices}
struct S_BT_ScanDevice
{
    bdaddr_t Addr;         ///< Device address, in the byte order of `str2ba`.
    std::string AddrText;  ///< The same as text, "12:34:56:78:9A:BC", as `ba2str` writes it.
    std::string Name;      ///< The name that the device list is searched by.
    int Socket;            ///< Connected RFCOMM socket; -1: not connected.
    unsigned char Port;    ///< RFCOMM channel of that connection; 0: not connected.

    /// Unconnected, without name, address 00:00:00:00:00:00.
    S_BT_ScanDevice();

    /// Unconnected. Address text before name, unlike C_TAV_Bluetooth::Add_BT_Device().
    S_BT_ScanDevice(const bdaddr_t& addr, const std::string& addrText, const std::string& name);
};

/// Summary of one SDP service record. ServiceId and PortRFCOMM have a defined value only when the record carries the
/// attribute; do not rely on them otherwise. A protocol list tells no channel when it has no RFCOMM, when its RFCOMM
/// has none, and when it is a list of alternatives.
/// @alsoman{tav_services}
struct S_BT_ServicesData
{
    uuid_t ServiceId;                              ///< ServiceID.
    std::vector<uuid_t> ServiceClasses;            ///< ServiceClassIDList, in record order.
    std::vector<sdp_profile_desc_t> ProfileDescs;  ///< BluetoothProfileDescriptorList, in record order.
    std::string Name;                              ///< Primary ServiceName.
    std::string Description;                       ///< Primary ServiceDescription.
    std::string Provider;                          ///< Primary ProviderName.
    int PortRFCOMM;                                ///< RFCOMM channel; 0: a protocol list that tells none.
};

class C_TAV_Bluetooth
{
public:
    // -----------------------------------------------------------------------------------------------------------------
    /// @name The object
    /// @alsoman{tav_bluetooth}
    /// @{

    /// Nothing is opened until an operation needs it.
    C_TAV_Bluetooth();

    /// Calls Close().
    ~C_TAV_Bluetooth();

    /// Not copied: the copy would close the sockets of its original.
    C_TAV_Bluetooth(const C_TAV_Bluetooth&) = delete;
    C_TAV_Bluetooth& operator=(const C_TAV_Bluetooth&) = delete;  ///< Nor assigned.

    /// Returns the object to its constructed state; it can be used again, and closed again. Closes every listening
    /// socket that has accepted a client, with its clients (CloseAllServer()). Leaves alone, on purpose:
    /// - outgoing connections: they stay open, and nothing names them any more. Call Disconnect() for each one before;
    /// - a listening socket that never accepted a client: it stays open;
    /// - the accept thread: it is neither stopped nor waited for. Call CloseServer_TAV() before, and see there.
    void Close();

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Finding devices, and their list
    /// The list holds what the last scan found, what its file holds, and what the program added. Operations take a
    /// device by its index in the list or by its name.
    /// @man{tav_devices}
    /// @{

    /// Inquires on the adapter that Linux takes of those that are on, the one plugged in last (`hci_get_route`,
    /// `hci_inquiry`), asks every device that answered for its name (`hci_read_remote_name`), replaces the device list
    /// by those that told it, in inquiry order and unconnected, and writes them to the device list file.
    ///
    /// Blocks for the whole inquiry of 8 x 1.28 s = 10.24 s and for each name request, which has no time-out of its own
    /// (BlueZ waits for the controller, about 5 s for a device that left). A connection that any program of this brick
    /// starts meanwhile ends the inquiry, with those that had answered so far. Sockets of devices that were connected
    /// stay open although the new list does not show them.
    ///
    /// The file, named `__BTScan__`, is deleted and written anew in `../prjs/SD_Card/` or, if it cannot be opened
    /// there, in `../prjs/` (relative to the working directory); a scan that can open neither goes on without it.
    /// @return The number of devices listed, or -1 when there is no adapter, it does not open or the inquiry fails;
    /// list and file are then unchanged.
    /// @errors
    /// - ENODEV: there is no adapter, or it is down (`hci_get_route`)
    int BT_Scan();

    /// Appends the devices of the device list file to the device list, except those whose name is listed already. The
    /// file is looked for in `../prjs/SD_Card/`, then in `../prjs/`. The stream that was opened is not closed: a call
    /// that finds a file costs one descriptor.
    /// @return False when there is no such file, or when its first record is damaged after the name. True otherwise,
    /// also for an empty file and for one whose later records are damaged: the complete records before them are listed.
    bool BT_ParseFileDevices();

    /// Appends a device.
    /// @param name      its name; before the address text, unlike in the constructor of S_BT_ScanDevice
    /// @param addrText  its address, converted with `str2ba`, unchecked
    /// @param socket    -1 for a device that is not connected
    /// @param port      0 for a device that is not connected
    /// @return Its index, or -1 when the name is listed already (nothing changes then).
    int Add_BT_Device(const std::string& name, const std::string& addrText, int socket, unsigned char port);

    /// Copies name and address text of a listed device.
    /// @return False, and both texts unchanged, when there is no such index.
    bool Get_ScanDevice(unsigned int index, std::string& name, std::string& addrText) const;

    /// Looks a name up in the device list.
    /// @return Index of the first device of this name; -1 when the list is empty, -2 when the name is not in it.
    int Get_IndexScanDevice(const std::string& name) const;

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Connecting to other bricks
    /// A connection is one of the program's own making, to one RFCOMM channel of a listed device.
    /// @man{tav_connections}
    /// @{

    /// Connects to a device by name. A name that is not listed is looked for in the device list file, then by an
    /// inquiry (which replaces the list). Blocks up to `timeout`, and for a device in neither for BT_Scan() before.
    /// Arguments and errors are those of Connect_Index(), which it ends in.
    /// @return As Connect_Index(); -1 also when the device is not found.
    int Connect(const std::string& name, unsigned char channel, unsigned long timeout);

    /// Opens an RFCOMM connection to a listed device and stores socket and channel in its record. The caller closes the
    /// socket with Disconnect(); Close() does not. Blocks up to `timeout`.
    ///
    /// A device that refuses, or that is not in range (known after the page time-out, 5.12 s), still yields a socket:
    /// the failure shows at the first transfer. A device that is connected already is connected once more, and the
    /// earlier socket stays open.
    /// @param index    position in m_ScanDevices
    /// @param channel  RFCOMM channel (1 classic, 16 named messages)
    /// @param timeout  longest wait in milliseconds; 0 polls once
    /// @return The socket, non-blocking, or -1 on a bad index, a failed call or a time-out, with nothing left open and
    /// the record unchanged.
    /// @errors
    /// - EBUSY: this channel of the device is connected already, or the last connection to a device that fell silent is
    ///   not given up yet (`connect`)
    /// - EHOSTUNREACH: there is no adapter, it is down, or the address is its own (`connect`)
    /// - EINVAL: the channel is not one of 1 to 30 (`connect`)
    int Connect_Index(unsigned int index, unsigned char channel, unsigned long timeout);

    /// Whether a device is listed and has a socket. Nothing notices that a peer hung up: the device counts as connected
    /// until Disconnect().
    /// @return Index (not socket) of the named device if so, else -1.
    int isConnected(const std::string& name) const;

    /// Shuts down and closes an outgoing socket and marks its device as not connected: the device that now has the
    /// index it was connected under, which after a scan may be another one. Call it once a socket: a second call closes
    /// the number again, whoever has it by then.
    /// @return False for a socket that Connect() did not return, and for one whose index is no longer in the list: that
    /// socket stays open.
    bool Disconnect(int socket);

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Messages in the named format, RFCOMM channel 16
    /// By device name: a device that is not connected is connected first (Connect(), channel 16, 20000 ms), and stays
    /// connected. One that is connected is used as it is, whatever its channel. After a failed send to a device that
    /// isConnected(), call Disconnect() and wait 0.3 s: the next message connects anew.
    ///
    /// A message carries this brick's name (Get_TAVBrickName()), a message id and a value; it is sent by one send. A
    /// reader takes one receive and expects in it one message of its kind, from the sender `name`, with the id `msgId`;
    /// what was received is consumed, matching or not. The sender's name is a claim, not a proof.
    ///
    /// `maxSize` is no place for "no limit": what is asked for wraps at 32 bits, and the largest number receives 184
    /// bytes of a text and 188 of data. The rest spoils the next read.
    /// @man{tav_named_messages}
    /// @errors Those of Connect_Index() while connecting, of WriteData() while sending, of ReadData() while reading. A
    /// message that does not match fails without an errno.
    /// @{

    /// Sends the `size` bytes at `data`. Blocks until the socket takes data, without time-out.
    /// @return True when the whole message was accepted by the socket; false when there is no connection, no name of
    /// this brick, or on a failed or short write.
    bool SendMsg_TAV_Data(const std::string& name, const std::string& msgId, const unsigned char* data,
                          unsigned int size);
    /// Sends a bool. @return As SendMsg_TAV_Data().
    bool SendMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool value);
    /// Sends a text. @return As SendMsg_TAV_Data().
    bool SendMsg_TAV_String(const std::string& name, const std::string& msgId, const std::string& text);

    /// Waits up to `timeout` ms for a raw data message. Nothing behind the size is a failure; fewer bytes than the size
    /// says, as when the rest is still on its way, are returned as they are. Receives up to 1024 bytes of message, or
    /// maxSize + 189 for a maxSize above 835; what is beyond stays in the socket and spoils the next read.
    /// @return The number of bytes stored in `data`, at most `maxSize`, or -1; `data` is then empty (unchanged when
    /// there is no connection).
    int ReadMsg_TAV_Data(const std::string& name, const std::string& msgId, std::string& data, unsigned int maxSize,
                         unsigned long timeout);

    /// Waits up to `timeout` ms for a bool message. @return True when a value was taken; `value` is unchanged
    /// otherwise.
    bool ReadMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool& value, unsigned long timeout);

    /// Waits up to `timeout` ms for a text message. The text is what was received behind the id, less the last byte.
    /// `maxSize` chooses how much is received (1024 bytes, or maxSize + 185 for a maxSize above 839), it does not limit
    /// the text.
    /// @return The length of the text, or -1 with `text` unchanged.
    int ReadMsg_TAV_String(const std::string& name, const std::string& msgId, std::string& text, unsigned int maxSize,
                           unsigned long timeout);

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Messages in the classic mailbox format, RFCOMM channel 1
    /// As those in the named format, on channel 1, in the format of the brick's own firmware mailboxes. The format
    /// carries no sender name. Ids of more than 254 bytes, and ids and texts of more than 65526 bytes together, are
    /// sent with length fields that no longer match.
    /// @man{tav_classic_messages}
    /// @errors Those of Connect_Index() while connecting, of WriteData() while sending, of ReadData() while reading. A
    /// message that does not match fails without an errno.
    /// @{

    /// Sends a bool. @return As SendMsg_TAV_Bool(); this brick needs no name.
    bool SendMsg_TAVOrg_Bool(const std::string& name, const std::string& msgId, bool value);
    /// Sends a text. @return As SendMsg_TAV_String(); this brick needs no name.
    bool SendMsg_TAVOrg_String(const std::string& name, const std::string& msgId, const std::string& text);

    /// Receives up to 32 bytes: ids of up to 21 bytes. @return As ReadMsg_TAV_Bool().
    bool ReadMsg_TAVOrg_Bool(const std::string& name, const std::string& msgId, bool& value, unsigned long timeout);

    /// Receives up to 1024 bytes, or maxSize + 74 for a maxSize above 950, which wraps as those of the named format do.
    /// `maxSize` does not limit the text. A message whose length field has a low byte of 0 is not understood, since one
    /// leading zero byte is skipped.
    /// @return As ReadMsg_TAV_String().
    int ReadMsg_TAVOrg_String(const std::string& name, const std::string& msgId, std::string& text,
                              unsigned int maxSize, unsigned long timeout);

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name The built-in server, RFCOMM channel 16
    /// This server accepts clients by itself, in a thread, and talks to them in the named format.
    /// @man{tav_server}
    /// @{

    /// Opens the server (OpenServer() on channel 16) and starts the accept thread (`pthread_create`), which is neither
    /// joined nor detached: its stack, 8 MB of address space by default, stays when it has ended. Call it only while
    /// m_ServerSocket is -1.
    /// @return False when the server does not open (the channel is taken, there is no Bluetooth) or the thread does not
    /// start; in the latter case the socket stays open.
    /// @errors As of OpenServer(). A thread that does not start leaves nothing in the log.
    bool OpenServer_TAV();

    /// Stops the accept thread, waiting up to about a second, and closes the server with its clients (CloseServer()).
    /// Called right after OpenServer_TAV(), before the thread runs (m_AcceptRunning), it does not wait: the thread then
    /// lives for one more cycle of up to a second, during which the object must not go, nor the server be opened again,
    /// or two threads accept its clients.
    /// @return False when no client was ever accepted: the socket then stays open, m_ServerSocket keeps it, nobody
    /// accepts any more, and the server's messages do not open it again. To start anew, close that socket and set
    /// m_ServerSocket to -1.
    bool CloseServer_TAV();

    /// Sends a bool to every client, in the named format. The server is opened if need be. Results of the single sends
    /// are ignored. @return False when the server cannot be opened or there is no client (no client is waited for).
    bool Server_SendMsg_TAV_Bool(const std::string& msgId, bool value);
    /// As Server_SendMsg_TAV_Bool(), with a text. @return The same.
    bool Server_SendMsg_TAV_String(const std::string& msgId, const std::string& text);

    /// Polls the clients in turn, without a pause, until one brings a matching message of the named format or more than
    /// `timeout` ms have passed by the system's clock (`gettimeofday`), which may be set meanwhile. The server is
    /// opened if need be. Messages that do not match are consumed.
    ///
    /// On Linux a client that hung up can hold this for ever: its accepted socket is blocking, stays readable, and the
    /// receive that follows the first failed one does not return. Close such a client with CloseClient().
    /// @return As ReadMsg_TAV_Bool(), with one exception: true when the clock fails while there are clients.
    /// @errors Those of OpenServer() while opening, of ReadData() while reading.
    bool Server_ReadMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool& value, unsigned long timeout);
    /// As Server_ReadMsg_TAV_Bool(), with a text. @return As ReadMsg_TAV_String(), also when the clock fails.
    int Server_ReadMsg_TAV_String(const std::string& name, const std::string& msgId, std::string& text,
                                  unsigned int maxSize, unsigned long timeout);

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Servers on any channel
    /// A program's own servers: they accept clients when told to, and talk to them by socket.
    /// @man{tav_channel_servers}
    /// @{

    /// Opens a listening RFCOMM socket, non-blocking, backlog 1, on any local adapter. No authentication, no
    /// encryption, no pairing: whoever is in range may connect.
    /// @return The socket, or -1 with nothing left open.
    /// @errors
    /// - EADDRINUSE: the channel is taken (`bind`)
    int OpenServer(unsigned char channel);

    /// Waits up to `timeout` ms for a client and lists it under `serverSocket` in m_ServerClients. The accepted socket
    /// is in blocking mode, and its record has no name in practice: BlueZ refuses the name request
    /// (`hci_read_remote_name`) on an RFCOMM socket.
    /// @return The client's socket, or -1 on a time-out or a failed call.
    /// @errors
    /// - EBADF: `serverSocket` is not open (`select`)
    int AcceptClient(int serverSocket, unsigned long timeout);

    /// Shuts down and closes one accepted client and drops its record. The order of the other clients changes.
    /// @return False when no server has it.
    bool CloseClient(int socket);

    /// Shuts down and closes all clients of a server. @return False when the server never accepted one.
    bool CloseAllClient(int serverSocket);

    /// Shuts down and closes a server with its clients and sets `socket` to -1.
    /// @return False, with everything left open, when it never accepted a client.
    bool CloseServer(int& socket);

    /// Shuts down and closes every server that ever accepted a client, with its clients. @return Always true.
    bool CloseAllServer();

    /// Entry of the accept thread: accepts clients of m_ServerSocket of `object`, a C_TAV_Bluetooth, in cycles of 1000
    /// ms until m_StopAccept. Running out of memory there ends the process: nobody can catch it. @return Always null.
    static void* Thread_AcceptClient(void* object);

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Services of a device (SDP)
    /// What a device offers, as its SDP server tells.
    /// @man{tav_services}
    /// @{

    /// Asks a device for all its public services (`sdp_connect`, `sdp_service_search_attr_req` on the public browse
    /// group) and keeps their summaries in m_Services, which every call empties first. A name that is not listed is
    /// looked for in the device list file and, only if BT_ParseFileDevices() returned true, by an inquiry.
    ///
    /// Blocks for BT_Scan() if that was needed, for the SDP connection (the page time-out for a device that is not in
    /// range) and for the search, in which BlueZ waits up to 20 s for each answer: a hostile device may never come to
    /// an end. The session of a successful query stays open: one descriptor a call.
    /// @return False when the device is not found, or connection or search fail.
    /// @errors
    /// - ECONNREFUSED: the device has no SDP server (`sdp_connect`)
    /// - EHOSTDOWN: the device is not in range (`sdp_connect`)
    /// - EHOSTUNREACH: there is no adapter, or it is down (`sdp_connect`)
    bool Get_BT_Services(const std::string& name);

    /// Runs Get_BT_Services(). @return The number of services, 0 or more, or -1 when it fails.
    int Get_BT_Services_Count(const std::string& name);

    /// Copies the name of service `index` of the last query. @return False, and the output unchanged, when there is
    /// none.
    bool Get_BT_Services_Name(unsigned int index, std::string& text) const;
    /// Copies the description of service `index`. @return As Get_BT_Services_Name().
    bool Get_BT_Services_Description(unsigned int index, std::string& text) const;
    /// Copies the provider of service `index`. @return As Get_BT_Services_Name().
    bool Get_BT_Services_Provider(unsigned int index, std::string& text) const;
    /// Copies the RFCOMM channel of service `index`. @return As Get_BT_Services_Name().
    bool Get_BT_Services_PortRFCOMM(unsigned int index, int& port) const;

    /// Writes a UUID as text (`sdp_uuid2strn`). @return False, and `text` unchanged, for null or an unknown kind of
    /// UUID.
    bool Convert_UUID_to_String(const uuid_t* uuid, std::string& text) const;

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Messages on a connected socket
    /// The same messages by socket instead of by device name: for sockets of Connect() and of accepted clients. All
    /// other arguments and the results are the same. The classic readers do not use `name`.
    ///
    /// On Linux a peer that hung up makes the first read fail; on the blocking socket of an accepted client the next
    /// one never returns, whatever its time-out. Close such a client, or set its socket non-blocking.
    /// @man{tav_socket_messages}
    /// @errors Those of WriteData() while sending, of ReadData() while reading. A message that does not match fails
    /// without an errno.
    /// @{

    /// Sends raw data. @return As SendMsg_TAV_Data().
    bool _SendMsg_TAV_Data(int socket, const std::string& msgId, const unsigned char* data, unsigned int size);
    /// Sends a bool. @return As SendMsg_TAV_Bool().
    bool _SendMsg_TAV_Bool(int socket, const std::string& msgId, bool value);
    /// Sends a text. @return As SendMsg_TAV_String().
    bool _SendMsg_TAV_String(int socket, const std::string& msgId, const std::string& text);
    /// Reads raw data. @return As ReadMsg_TAV_Data().
    int _ReadMsg_TAV_Data(int socket, const std::string& name, const std::string& msgId, std::string& data,
                          unsigned int maxSize, unsigned long timeout);
    /// Reads a bool. @return As ReadMsg_TAV_Bool().
    bool _ReadMsg_TAV_Bool(int socket, const std::string& name, const std::string& msgId, bool& value,
                           unsigned long timeout);
    /// Reads a text. @return As ReadMsg_TAV_String().
    int _ReadMsg_TAV_String(int socket, const std::string& name, const std::string& msgId, std::string& text,
                            unsigned int maxSize, unsigned long timeout);

    /// Sends a classic bool. @return As SendMsg_TAVOrg_Bool().
    bool _SendMsg_TAVOrg_Bool(int socket, const std::string& msgId, bool value);
    /// Sends a classic text. @return As SendMsg_TAVOrg_String().
    bool _SendMsg_TAVOrg_String(int socket, const std::string& msgId, const std::string& text);
    /// Reads a classic bool. @return As ReadMsg_TAVOrg_Bool().
    bool _ReadMsg_TAVOrg_Bool(int socket, const std::string& name, const std::string& msgId, bool& value,
                              unsigned long timeout);
    /// Reads a classic text. @return As ReadMsg_TAVOrg_String().
    int _ReadMsg_TAVOrg_String(int socket, const std::string& name, const std::string& msgId, std::string& text,
                               unsigned int maxSize, unsigned long timeout);

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Timed transfer, under all messages
    /// All messages are sent and received by these two.
    /// @man{tav_transfer}
    /// @errors
    /// - EBADF: the socket is not open (`select`)
    /// - ECONNREFUSED: the device refused the connection (the first `send` or `recv`)
    /// - EHOSTDOWN: the device was not in range when connecting (the first `send` or `recv`)
    /// - ECONNRESET: the peer hung up, or its program ended (`recv`, once, after what it had sent)
    /// - ETIMEDOUT: the peer fell silent; noticed after 20 s (`recv`, once)
    /// - ENOTCONN: the connection is gone (`send`)
    /// - EAGAIN: the connection is gone, as earlier errors said (`recv` on a socket of Connect())
    /// @{

    /// Waits up to `timeout` ms for data (`select`) and receives once (`recv`), at most `len` bytes. Instantiated for
    /// char.
    /// @return The number of bytes, 0 when `recv` returned 0, -1 when the time is out or `select` or `recv` failed.
    template <typename BYTE>
    int ReadData(int socket, BYTE* buf, unsigned int len, unsigned long timeout);

    /// Waits without limit until the socket takes data (`select`) and sends once (`send`). Instantiated for char.
    /// @return The number of bytes accepted, possibly fewer than `len`, or -1 when `select` or `send` failed.
    template <typename BYTE>
    int WriteData(int socket, const BYTE* buf, unsigned int len);

    /// @}
    // -----------------------------------------------------------------------------------------------------------------
    /// @name Fields of the object
    /// All that the object knows is open to the program.
    /// @man{tav_fields}
    /// @{

    /// The device list. A device's index is its position.
    std::vector<S_BT_ScanDevice> m_ScanDevices;

    /// Outgoing sockets and the device index each was connected for. Entries outlive Disconnect() and BT_Scan(): an
    /// entry may name a closed socket, or an index that another device has now.
    std::map<int, unsigned int> m_ClientSockets;

    /// Services of the last query, in the order of the device's answer.
    std::vector<S_BT_ServicesData> m_Services;

    /// Accepted clients by listening socket; a server appears with its first client. The accept thread appends to the
    /// built-in server's list while the user program's thread reads it, without a lock: do not close single clients or
    /// keep references into it while that thread runs, unless the program can rule out that one is being accepted.
    std::map<int, std::vector<S_BT_ScanDevice>> m_ServerClients;

    /// Listening socket of the built-in server; -1: none.
    int m_ServerSocket;

    /// Asks the accept thread to end.
    bool m_StopAccept;

    /// True while the accept thread is in its loop.
    bool m_AcceptRunning;

    /// @}
};

}  // namespace tav_c_api_impl
