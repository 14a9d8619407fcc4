// Bluetooth Classic messaging between bricks, over BlueZ (libbluetooth) and RFCOMM sockets.
//
// Conventions of the whole class:
//   Results    Failures are values: false, or -1 where a socket, an index or a count is returned. Nothing throws,
//              short of running out of memory. The reason is in the debug log (api/tav_c_api.h), as errno and its text
//              where a call failed.
//   Time-outs  Milliseconds, unsigned. 0 polls once (the server's reads: for 1 ms).
//   Texts      Names, message ids and texts are byte strings without NUL, compared exactly (case matters).
//   Threads    Every operation belongs to the user program's thread, except ReadData and WriteData: they touch no field
//   of
//              the object, and any thread may call them. The only other thread is the accept thread of the built-in
//              server. There is no lock and no atomic anywhere: see m_ServerClients.
//   Sockets    Plain descriptors, 0 or more and below FD_SETSIZE (1024); that is not checked, so leave the process its
//              usual limit of 1024 descriptors. Sending on -1 waits for ever. Records do not own their sockets: a
//              connection stays open until one of the closing operations below is called for it.
//   SIGPIPE    Sending uses no MSG_NOSIGNAL: the program decides what SIGPIPE does.
#pragma once

#include <bluetooth/bluetooth.h>
#include <bluetooth/sdp.h>
#include <map>
#include <string>
#include <vector>

namespace tav_c_api_impl {

// One remote device. Held by value and copied freely; copying copies the socket's number, destroying closes nothing.
struct S_BT_ScanDevice
{
    bdaddr_t Addr;         // device address, in the byte order of str2ba
    std::string AddrText;  // the same as text, "12:34:56:78:9A:BC", as ba2str writes it
    std::string Name;      // the name that the device list is searched by
    int Socket;            // connected RFCOMM socket; -1: not connected
    unsigned char Port;    // RFCOMM channel of that connection; 0: not connected

    S_BT_ScanDevice();  // unconnected, without name, address 00:00:00:00:00:00

    // Unconnected. Address text before name, unlike Add_BT_Device.
    S_BT_ScanDevice(const bdaddr_t& addr, const std::string& addrText, const std::string& name);
};

// Summary of one SDP service record. ServiceId and PortRFCOMM have a defined value only when the record carries the
// attribute; do not rely on them otherwise.
struct S_BT_ServicesData
{
    uuid_t ServiceId;                              // ServiceID
    std::vector<uuid_t> ServiceClasses;            // ServiceClassIDList, in record order
    std::vector<sdp_profile_desc_t> ProfileDescs;  // BluetoothProfileDescriptorList, in record order
    std::string Name;                              // primary ServiceName
    std::string Description;                       // primary ServiceDescription
    std::string Provider;                          // primary ProviderName
    int PortRFCOMM;                                // RFCOMM channel; 0: a protocol list without RFCOMM
};

class C_TAV_Bluetooth
{
public:
    // ---- The object -------------------------------------------------------------------------------------------------

    // Nothing is opened until an operation needs it.
    C_TAV_Bluetooth();

    // Calls Close().
    ~C_TAV_Bluetooth();

    // Not copied: the copy would close the sockets of its original.
    C_TAV_Bluetooth(const C_TAV_Bluetooth&) = delete;
    C_TAV_Bluetooth& operator=(const C_TAV_Bluetooth&) = delete;

    // Returns the object to its constructed state; it can be used again, and closed again. Closes every listening
    // socket that has accepted a client, with its clients (CloseAllServer). Leaves alone, on purpose:
    //   - outgoing connections: they stay open, and nothing names them any more. Call Disconnect for each one before;
    //   - a listening socket that never accepted a client: it stays open;
    //   - the accept thread: it is neither stopped nor waited for. Call CloseServer_TAV before, and see there.
    void Close();

    // ---- Finding devices: the device list ---------------------------------------------------------------------------

    // Inquires on the first adapter (hci_get_route, hci_inquiry), asks every device that answered for its name
    // (hci_read_remote_name), replaces the device list by those that told it, in inquiry order and unconnected, and
    // writes them to the device list file.
    // Returns the number of devices listed, or -1 when there is no adapter, it does not open or the inquiry fails;
    // list and file are then unchanged. Blocks for the whole inquiry of 8 x 1.28 s = 10.24 s and for each name request,
    // which has no time-out of its own (BlueZ waits for the controller, about 5 s for a device that left).
    // Sockets of devices that were connected stay open although the new list does not show them.
    // The file, named __BTScan__, is deleted and written anew in ../prjs/SD_Card/ or, if it cannot be opened there, in
    // ../prjs/ (relative to the working directory); a scan that can open neither goes on without it.
    int BT_Scan();

    // Appends the devices of the device list file to the device list, except those whose name is listed already. The
    // file is looked for in ../prjs/SD_Card/, then in ../prjs/.
    // False when there is no such file, or when its first record is damaged after the name. True otherwise, also for
    // an empty file and for one whose later records are damaged: the complete records before them are listed.
    // The stream that was opened is not closed: a call that finds a file costs one descriptor.
    bool BT_ParseFileDevices();

    // Appends a device. Name before address text, unlike the constructor of S_BT_ScanDevice. The address text is
    // converted with str2ba, unchecked. socket -1 and port 0 for a device that is not connected.
    // Returns its index, or -1 when the name is listed already (nothing changes then).
    int Add_BT_Device(const std::string& name, const std::string& addrText, int socket, unsigned char port);

    // Copies name and address text of a listed device. False, and both texts unchanged, when there is no such index.
    bool Get_ScanDevice(unsigned int index, std::string& name, std::string& addrText) const;

    // Index of the first device of this name; -1 when the list is empty, -2 when the name is not in it.
    int Get_IndexScanDevice(const std::string& name) const;

    // ---- Connecting to other bricks ---------------------------------------------------------------------------------

    // Connects to a device by name. A name that is not listed is looked for in the device list file, then by an
    // inquiry (which replaces the list). Arguments and result as for Connect_Index, which it ends in; -1 also when the
    // device is not found. Blocks up to `timeout`, and for an unlisted device for BT_Scan before.
    int Connect(const std::string& name, unsigned char channel, unsigned long timeout);

    // Opens an RFCOMM connection to a listed device and stores socket and channel in its record.
    //   index    position in m_ScanDevices
    //   channel  RFCOMM channel (1 classic, 16 named messages)
    //   timeout  longest wait in milliseconds; 0 polls once
    // Returns the socket, non-blocking, or -1 on a bad index, a failed call or a time-out, with nothing left open and
    // the record unchanged. A device that refuses, or that is not in range (seen after the page time-out of 5.12 s),
    // still yields a socket: the failure shows at the first transfer.
    // A device that is connected already is connected once more, and the earlier socket stays open; Linux refuses a
    // second connection to the same channel (EBUSY), also while the last one to a device that fell silent is not given
    // up, for 20 s.
    // The caller closes the socket with Disconnect; Close() does not. Blocks up to `timeout`.
    int Connect_Index(unsigned int index, unsigned char channel, unsigned long timeout);

    // Index (not socket) of the named device if it is listed and has a socket, else -1. Nothing notices that a peer
    // hung up: the device counts as connected until Disconnect.
    int isConnected(const std::string& name) const;

    // Shuts down and closes an outgoing socket and marks its device as not connected: the device that now has the index
    // it was connected under, which after a scan may be another one. False for a socket that Connect did not return,
    // and for one whose index is no longer in the list: that socket stays open. Call it once a socket: a second call
    // closes the number again, whoever has it by then.
    bool Disconnect(int socket);

    // ---- Messages in the named format, RFCOMM channel 16 ------------------------------------------------------------
    //
    // By device name. A device that is not connected is connected first (Connect, channel 16, 20000 ms), and stays
    // connected. One that is connected is used as it is, whatever its channel.
    // After a failed send to a device that isConnected, call Disconnect and wait 0.3 s: the next message connects anew.
    // A message carries this brick's name (Get_TAVBrickName), a message id and a value; it is sent by one send. A
    // reader takes one receive and expects in it one message of its kind, from the sender `name`, with the id `msgId`;
    // what was received is consumed, matching or not. The sender's name is a claim, not a proof.

    // True when the whole message was accepted by the socket; false when there is no connection, no name of this brick,
    // or on a failed or short write. Blocks until the socket takes data, without time-out.
    //   size  number of bytes at `data`
    bool SendMsg_TAV_Data(const std::string& name, const std::string& msgId, const unsigned char* data,
                          unsigned int size);
    bool SendMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool value);
    bool SendMsg_TAV_String(const std::string& name, const std::string& msgId, const std::string& text);

    // Waits up to `timeout` ms for a raw data message. Returns the number of bytes stored in `data`, at most `maxSize`,
    // or -1; `data` is then empty (unchanged when there is no connection). Nothing behind the size is a failure; fewer
    // bytes than the size says, as when the rest is still on its way, are returned as they are.
    // Receives up to 1024 bytes of message, or maxSize + 189 for a maxSize above 835; what is beyond stays in the
    // socket and spoils the next read.
    int ReadMsg_TAV_Data(const std::string& name, const std::string& msgId, std::string& data, unsigned int maxSize,
                         unsigned long timeout);

    // Waits up to `timeout` ms for a bool message. True when a value was taken; `value` is unchanged otherwise.
    bool ReadMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool& value, unsigned long timeout);

    // Waits up to `timeout` ms for a text message. Returns the length of the text, or -1 with `text` unchanged. The
    // text is what was received behind the id, less the last byte. `maxSize` chooses how much is received (1024 bytes,
    // or maxSize + 185 for a maxSize above 839), it does not limit the text.
    int ReadMsg_TAV_String(const std::string& name, const std::string& msgId, std::string& text, unsigned int maxSize,
                           unsigned long timeout);

    // ---- Messages in the classic mailbox format, RFCOMM channel 1 ---------------------------------------------------
    //
    // As above, on channel 1, in the format of the brick's own firmware mailboxes. The format carries no sender name.
    // Ids of more than 254 bytes, and ids and texts of more than 65526 bytes together, are sent with length fields that
    // no longer match.

    bool SendMsg_TAVOrg_Bool(const std::string& name, const std::string& msgId, bool value);
    bool SendMsg_TAVOrg_String(const std::string& name, const std::string& msgId, const std::string& text);

    // Receives up to 32 bytes: ids of up to 21 bytes.
    bool ReadMsg_TAVOrg_Bool(const std::string& name, const std::string& msgId, bool& value, unsigned long timeout);

    // Receives up to 1024 bytes, or maxSize + 74 for a maxSize above 950. `maxSize` does not limit the text. A message
    // whose length field has a low byte of 0 is not understood, since one leading zero byte is skipped.
    int ReadMsg_TAVOrg_String(const std::string& name, const std::string& msgId, std::string& text,
                              unsigned int maxSize, unsigned long timeout);

    // ---- The built-in server, RFCOMM channel 16 ---------------------------------------------------------------------

    // Opens the server (OpenServer on channel 16) and starts the accept thread (pthread_create), which is neither
    // joined nor detached. Call it only while m_ServerSocket is -1. False when the server does not open (the channel is
    // taken, there is no Bluetooth) or the thread does not start; in the latter case the socket stays open.
    bool OpenServer_TAV();

    // Stops the accept thread, waiting up to about a second, and closes the server with its clients (CloseServer).
    // False when no client was ever accepted: the socket then stays open, m_ServerSocket keeps it, nobody accepts any
    // more, and the server's messages do not open it again. To start anew, close that socket and set m_ServerSocket to
    // -1. Called right after OpenServer_TAV, before the thread runs (m_AcceptRunning), it does not wait: the thread
    // then lives for one more cycle of up to a second, during which the object must not go.
    bool CloseServer_TAV();

    // Sends a message to every client, in the named format. The server is opened if need be. False when it cannot be
    // opened or there is no client (no client is waited for); results of the single sends are ignored.
    bool Server_SendMsg_TAV_Bool(const std::string& msgId, bool value);
    bool Server_SendMsg_TAV_String(const std::string& msgId, const std::string& text);

    // Polls the clients in turn, without a pause, until one brings a matching message of the named format or more than
    // `timeout` ms have passed by the system's clock (gettimeofday), which may be set meanwhile. The server is opened
    // if need be. Results and arguments as for ReadMsg_TAV_Bool and ReadMsg_TAV_String, with one exception: the Bool
    // operation returns true when the clock fails between clients. Messages that do not match are consumed. On Linux a
    // client that hung up can hold this for ever: its accepted socket is blocking, stays readable, and the receive that
    // follows the first failed one does not return. Close such a client with CloseClient.
    bool Server_ReadMsg_TAV_Bool(const std::string& name, const std::string& msgId, bool& value, unsigned long timeout);
    int Server_ReadMsg_TAV_String(const std::string& name, const std::string& msgId, std::string& text,
                                  unsigned int maxSize, unsigned long timeout);

    // ---- Servers on any channel -------------------------------------------------------------------------------------

    // Opens a listening RFCOMM socket, non-blocking, backlog 1, on any local adapter. No authentication, no encryption,
    // no pairing: whoever is in range may connect. Returns the socket, or -1 with nothing left open.
    int OpenServer(unsigned char channel);

    // Waits up to `timeout` ms for a client and lists it under `serverSocket` in m_ServerClients. Returns the client's
    // socket, or -1 on a time-out or a failed call. The accepted socket is in blocking mode, and its record has no name
    // in practice: BlueZ refuses the name request (hci_read_remote_name) on an RFCOMM socket.
    int AcceptClient(int serverSocket, unsigned long timeout);

    // Shuts down and closes one accepted client and drops its record. False when no server has it. The order of the
    // other clients changes.
    bool CloseClient(int socket);

    // Shuts down and closes all clients of a server. False when the server never accepted one.
    bool CloseAllClient(int serverSocket);

    // Shuts down and closes a server with its clients and sets `socket` to -1. False, with everything left open, when
    // it never accepted a client.
    bool CloseServer(int& socket);

    // Shuts down and closes every server that ever accepted a client, with its clients. Always true.
    bool CloseAllServer();

    // Entry of the accept thread: accepts clients of m_ServerSocket of `object`, a C_TAV_Bluetooth, in cycles of 1000
    // ms until m_StopAccept. Always null.
    static void* Thread_AcceptClient(void* object);

    // ---- Services of a device (SDP) ---------------------------------------------------------------------------------

    // Asks a device for all its public services (sdp_connect, sdp_service_search_attr_req on the public browse group)
    // and keeps their summaries in m_Services, which every call empties first. A name that is not listed is looked for
    // in the device list file and, only if BT_ParseFileDevices returned true, by an inquiry.
    // False when the device is not found, or connection or search fail. Blocks for the SDP connection (5.12 s for a
    // device that is not in range) and the search (BlueZ waits up to 20 s for an answer), and for BT_Scan before. The
    // session of a successful query stays open: one descriptor a call.
    bool Get_BT_Services(const std::string& name);

    // Runs Get_BT_Services; returns the number of services, 0 or more, or -1 when it fails.
    int Get_BT_Services_Count(const std::string& name);

    // Copy one field of service `index` of the last query. False, and the output unchanged, when there is none.
    bool Get_BT_Services_Name(unsigned int index, std::string& text) const;
    bool Get_BT_Services_Description(unsigned int index, std::string& text) const;
    bool Get_BT_Services_Provider(unsigned int index, std::string& text) const;
    bool Get_BT_Services_PortRFCOMM(unsigned int index, int& port) const;

    // Text form of a UUID (sdp_uuid2strn). False, and `text` unchanged, for null or an unknown kind of UUID.
    bool Convert_UUID_to_String(const uuid_t* uuid, std::string& text) const;

    // ---- Messages on a connected socket -----------------------------------------------------------------------------
    //
    // The operations above by socket, with the same arguments and results: for sockets of Connect and of accepted
    // clients. The classic readers do not use `name`.
    // On Linux a peer that hung up makes the first read fail; on the blocking socket of an accepted client the next one
    // never returns, whatever its time-out. Close such a client, or set its socket non-blocking.

    bool _SendMsg_TAV_Data(int socket, const std::string& msgId, const unsigned char* data, unsigned int size);
    bool _SendMsg_TAV_Bool(int socket, const std::string& msgId, bool value);
    bool _SendMsg_TAV_String(int socket, const std::string& msgId, const std::string& text);
    int _ReadMsg_TAV_Data(int socket, const std::string& name, const std::string& msgId, std::string& data,
                          unsigned int maxSize, unsigned long timeout);
    bool _ReadMsg_TAV_Bool(int socket, const std::string& name, const std::string& msgId, bool& value,
                           unsigned long timeout);
    int _ReadMsg_TAV_String(int socket, const std::string& name, const std::string& msgId, std::string& text,
                            unsigned int maxSize, unsigned long timeout);

    bool _SendMsg_TAVOrg_Bool(int socket, const std::string& msgId, bool value);
    bool _SendMsg_TAVOrg_String(int socket, const std::string& msgId, const std::string& text);
    bool _ReadMsg_TAVOrg_Bool(int socket, const std::string& name, const std::string& msgId, bool& value,
                              unsigned long timeout);
    int _ReadMsg_TAVOrg_String(int socket, const std::string& name, const std::string& msgId, std::string& text,
                               unsigned int maxSize, unsigned long timeout);

    // ---- Timed transfer, under all messages -------------------------------------------------------------------------

    // Waits up to `timeout` ms for data (select) and receives once (recv), at most `len` bytes. Returns their number, 0
    // when recv returned 0, -1 when the time is out or select or recv failed. Instantiated for char.
    template <typename BYTE>
    int ReadData(int socket, BYTE* buf, unsigned int len, unsigned long timeout);

    // Waits without limit until the socket takes data (select) and sends once. Returns the number of bytes accepted,
    // possibly fewer than `len`, or -1 when select or send failed. Instantiated for char.
    template <typename BYTE>
    int WriteData(int socket, const BYTE* buf, unsigned int len);

    // ---- Fields -----------------------------------------------------------------------------------------------------

    // The device list. A device's index is its position.
    std::vector<S_BT_ScanDevice> m_ScanDevices;

    // Outgoing sockets and the device index each was connected for. Entries outlive Disconnect and BT_Scan: an entry
    // may name a closed socket, or an index that another device has now.
    std::map<int, unsigned int> m_ClientSockets;

    // Services of the last query, in the order of the device's answer.
    std::vector<S_BT_ServicesData> m_Services;

    // Accepted clients by listening socket; a server appears with its first client. The accept thread appends to the
    // built-in server's list while the user program's thread reads it, without a lock: do not close single clients or
    // keep references into it while that thread runs, unless the program can rule out that one is being accepted.
    std::map<int, std::vector<S_BT_ScanDevice>> m_ServerClients;

    // Listening socket of the built-in server; -1: none.
    int m_ServerSocket;

    // Asks the accept thread to end.
    bool m_StopAccept;

    // True while the accept thread is in its loop.
    bool m_AcceptRunning;
};

}  // namespace tav_c_api_impl
