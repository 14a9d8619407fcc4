// The class for Python, under its own names: tav_bluetooth.C_TAV_Bluetooth and its records.
//
// The table at the end has a line for each operation. What stands before it: texts, which keep every byte; waiting, for
// other threads and Ctrl-C; the accept thread; and views of the object's containers, which stay safe to use when those
// change.
#include "bluetooth/C_TAV_Bluetooth.h"
#include "bluetooth/system_calls.h"
#include "bluetooth/tav_version.h"
#include "docstrings.h"

#include <algorithm>
#include <bluetooth/hci.h>
#include <bluetooth/hci_lib.h>
#include <bluetooth/sdp_lib.h>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <pthread.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <set>
#include <thread>
#include <unistd.h>

namespace py = pybind11;
using namespace pybind11::literals;
using tav_c_api_impl::C_TAV_Bluetooth;
using tav_c_api_impl::S_BT_ScanDevice;
using tav_c_api_impl::S_BT_ServicesData;
using tav_c_api_impl::bluetooth_calls::C_Guard;

namespace {

// ---- Texts and data -------------------------------------------------------------------------------------------------

// A text of the module, which is any bytes: str in Python, where bytes that are not UTF-8 are surrogates; taken as str
// or bytes.
struct S_Text : std::string
{
};

// Raw data: bytes in Python.
struct S_Data : std::string
{
};

bool Take_Bytes(py::handle source, std::string& bytes)
{
    if (!PyBytes_Check(source.ptr())) return false;
    bytes.assign(PyBytes_AS_STRING(source.ptr()), static_cast<std::size_t>(PyBytes_GET_SIZE(source.ptr())));
    return true;
}

py::str Get_Str(const std::string& bytes)
{
    PyObject* const text = PyUnicode_DecodeUTF8(bytes.data(), static_cast<Py_ssize_t>(bytes.size()), "surrogateescape");
    if (!text) throw py::error_already_set();
    return py::reinterpret_steal<py::str>(text);
}

}  // namespace

namespace pybind11::detail {

template <>
struct type_caster<S_Text>
{
    PYBIND11_TYPE_CASTER(S_Text, const_name("str"));
    bool load(handle source, bool)
    {
        if (!PyUnicode_Check(source.ptr())) return Take_Bytes(source, value);
        const auto bytes =
            reinterpret_steal<object>(PyUnicode_AsEncodedString(source.ptr(), "utf-8", "surrogateescape"));
        if (!bytes) throw error_already_set();
        return Take_Bytes(bytes, value);
    }
    static handle cast(const S_Text& text, return_value_policy, handle) { return Get_Str(text).release(); }
};

template <>
struct type_caster<S_Data>
{
    PYBIND11_TYPE_CASTER(S_Data, const_name("bytes"));
    bool load(handle source, bool) { return Take_Bytes(source, value); }
    static handle cast(const S_Data& data, return_value_policy, handle) { return py::bytes(data).release(); }
};

// A device address: its six bytes.
template <>
struct type_caster<bdaddr_t>
{
    PYBIND11_TYPE_CASTER(bdaddr_t, const_name("bytes"));
    bool load(handle source, bool)
    {
        std::string bytes;
        if (!Take_Bytes(source, bytes) || bytes.size() != sizeof(value)) return false;
        memcpy(&value, bytes.data(), sizeof(value));
        return true;
    }
    static handle cast(const bdaddr_t& address, return_value_policy, handle)
    {
        return py::bytes(reinterpret_cast<const char*>(&address), sizeof(address)).release();
    }
};

}  // namespace pybind11::detail

namespace {

// ---- Waiting --------------------------------------------------------------------------------------------------------

constexpr std::chrono::milliseconds SLICE(50);  // how late Ctrl-C may be where no signal ends a wait

// Runs Python's handlers of signals that have come: the one of Ctrl-C raises KeyboardInterrupt. Python does so in its
// main thread alone.
void Check_Signals()
{
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

// Runs what may wait, while other Python threads run. A signal ends most waits, with a failure, before it is seen here.
// The lock is taken back by a statement, as Python ends threads in there when the program ends: no destructor lets it.
template <typename WORK>
auto Wait(WORK work)
{
    PyThreadState* const thread = PyEval_SaveThread();
    std::optional<decltype(work())> result;
    try {
        result = work();
    } catch (const std::exception&) {  // and no end of the thread
        PyEval_RestoreThread(thread);
        throw;
    }
    PyEval_RestoreThread(thread);
    Check_Signals();
    return std::move(*result);
}

// Waits in slices, for what a signal does not end. Called with the lock given up.
template <typename DONE>
void Wait_Until(DONE isDone)
{
    while (!isDone(SLICE)) {
        const py::gil_scoped_acquire lock;
        Check_Signals();
    }
}

// Runs work in a thread of its own, which no signal disturbs, and waits for it. When Ctrl-C comes, the work goes on to
// its end, unseen: it must own what it uses.
template <typename WORK>
auto Run_Apart(WORK work)
{
    std::packaged_task<decltype(work())()> task(std::move(work));
    auto result = task.get_future();
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        std::thread(std::move(task)).detach();
    } catch (...) {  // there is no room for one
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    Wait_Until([&](auto time) { return result.wait_for(time) == std::future_status::ready; });
    return result.get();
}

// ---- The object -----------------------------------------------------------------------------------------------------

// Belongs to Python and to its accept threads: it is gone when the last of them is.
struct C_Object : C_TAV_Bluetooth
{
    std::weak_ptr<C_Object> Self;
    int BuiltIn = -1;  // the last socket that it opened its server with, unless CloseAllServer closed that

    ~C_Object()
    {
        if (Is_Alone()) close(BuiltIn);
    }

    // The built-in server is open and nobody ever came: what closes servers leaves it.
    bool Is_Alone() const
    {
        return m_ServerSocket >= 0 && m_ServerSocket == BuiltIn && m_ServerClients.count(BuiltIn) == 0;
    }
};

using Object = std::shared_ptr<C_Object>;

// Python's share. When Python lets go of it, the accept threads are told to end.
Object Make_Object()
{
    auto object = std::make_shared<C_Object>();
    object->Self = object;
    return {object.get(), [object](C_Object*) { object->m_StopAccept = true; }};
}

}  // namespace

// What the module calls, and Python must come between: the linker leads these calls here (--wrap).
extern "C" {

int __real_hci_read_remote_name(int device, const bdaddr_t* address, int size, char* name, int timeout);
int __real_sdp_service_search_attr_req(sdp_session_t* session, const sdp_list_t* search, sdp_attrreq_type_t type,
                                       const sdp_list_t* attributes, sdp_list_t** responses);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument);

// BlueZ's library takes up this wait of seconds after a signal.
int __wrap_hci_read_remote_name(int device, const bdaddr_t* address, int size, char* name, int timeout)
{
    if (!PyGILState_GetThisThreadState())  // the accept thread
        return __real_hci_read_remote_name(device, address, size, name, timeout);
    struct S_Answer
    {
        int Result, Error;
        std::string Name;
    };
    const auto copy = std::make_shared<C_Guard<close>>(dup(device));  // the module closes its own when Ctrl-C comes
    const S_Answer answer = Run_Apart([copy, whom = *address, size, timeout] {
        S_Answer given{0, 0, std::string(static_cast<std::size_t>(size), '\0')};
        given.Result = __real_hci_read_remote_name(copy->Get(), &whom, size, given.Name.data(), timeout);
        given.Error = errno;
        return given;
    });
    std::copy(answer.Name.begin(), answer.Name.end(), name);
    errno = answer.Error;
    return answer.Result;
}

// After a signal BlueZ's library goes on to receive, without a time-out; from this socket it receives nothing then.
int __wrap_sdp_service_search_attr_req(sdp_session_t* session, const sdp_list_t* search, sdp_attrreq_type_t type,
                                       const sdp_list_t* attributes, sdp_list_t** responses)
{
    fcntl(sdp_get_socket(session), F_SETFL, O_NONBLOCK);
    return __real_sdp_service_search_attr_req(session, search, type, attributes, responses);
}

// The accept thread holds its object. What it leaves behind when it ends is nobody's to collect.
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*), void* argument)
{
    using Start = std::pair<void* (*)(void*), Object>;
    auto& object = static_cast<C_Object&>(*static_cast<C_TAV_Bluetooth*>(argument));
    auto given = std::make_unique<Start>(start, object.Self);
    object.BuiltIn = object.m_ServerSocket;
    const auto run = [](void* taken) -> void* {
        const std::unique_ptr<Start> own(static_cast<Start*>(taken));
        pthread_detach(pthread_self());
        return own->first(static_cast<C_TAV_Bluetooth*>(own->second.get()));
    };
    const int error = __real_pthread_create(thread, attributes, run, given.get());
    if (error == 0) static_cast<void>(given.release());
    return error;
}

}  // extern "C"

namespace {

// ---- Operations -----------------------------------------------------------------------------------------------------

// How Python passes an argument of an operation.
template <typename ARGUMENT>
struct S_Passed
{
    using Type = ARGUMENT;
};
template <>
struct S_Passed<const std::string&>
{
    using Type = const S_Text&;
};
template <typename ARGUMENT>
using Passed = typename S_Passed<ARGUMENT>::Type;

// An operation that returns at once.
template <typename RESULT, typename... ARGUMENTS>
auto Now(RESULT (C_TAV_Bluetooth::*operation)(ARGUMENTS...))
{
    return [operation](C_Object& self, Passed<ARGUMENTS>... arguments) { return (self.*operation)(arguments...); };
}
template <typename RESULT, typename... ARGUMENTS>
auto Now(RESULT (C_TAV_Bluetooth::*operation)(ARGUMENTS...) const)
{
    return [operation](C_Object& self, Passed<ARGUMENTS>... arguments) { return (self.*operation)(arguments...); };
}

// One that can wait.
template <typename RESULT, typename... ARGUMENTS>
auto Waits(RESULT (C_TAV_Bluetooth::*operation)(ARGUMENTS...))
{
    return [operation](const Object& self, Passed<ARGUMENTS>... arguments) {
        return Wait([&] { return ((*self).*operation)(arguments...); });
    };
}

bool Is_Done(bool result)
{
    return result;
}
bool Is_Done(int result)
{
    return result >= 0;
}

// The output of an operation, or nothing when that fails.
template <typename OUTPUT, typename OPERATION>
std::optional<OUTPUT> Get_Output(OPERATION operation)
{
    OUTPUT output{};
    if (!Is_Done(operation(output))) return std::nullopt;
    return output;
}

// Operations with an output behind arguments of these types. Python returns the output, or None.
template <typename... FRONT>
struct S_Reader
{
    template <typename OUTPUT, typename RESULT, typename RAW, typename... BACK>
    static auto Reads(RESULT (C_TAV_Bluetooth::*read)(FRONT..., RAW&, BACK...))
    {
        return [read](const Object& self, Passed<FRONT>... front, BACK... back) {
            return Wait([&] {
                return Get_Output<OUTPUT>([&](RAW& output) { return ((*self).*read)(front..., output, back...); });
            });
        };
    }

    template <typename OUTPUT, typename RAW>
    static auto Gets(bool (C_TAV_Bluetooth::*get)(FRONT..., RAW&) const)
    {
        return [get](const C_Object& self, Passed<FRONT>... front) {
            return Get_Output<OUTPUT>([&](RAW& output) { return (self.*get)(front..., output); });
        };
    }
};
using ByName = S_Reader<const std::string&, const std::string&>;
using BySocket = S_Reader<int, const std::string&, const std::string&>;
using ByIndex = S_Reader<unsigned int>;

// The server's reads go on after a signal: they are called for a slice at a time, until one brings what is wanted, the
// time is out, or the server is closed: it did not open, or a signal's handler closed it.
template <typename OUTPUT, typename READ>
std::optional<OUTPUT> Read_InSlices(const Object& self, unsigned long timeout, READ read)
{
    const std::chrono::milliseconds wait(std::min(timeout, 1UL << 31));  // or for weeks
    const auto until = std::chrono::steady_clock::now() + wait;
    return Wait([&] {
        std::optional<OUTPUT> output;
        if (self->m_ServerSocket < 0 && !self->OpenServer_TAV()) return output;
        Wait_Until([&](std::chrono::milliseconds slice) {
            if (self->m_ServerSocket < 0) return true;
            const auto left = until - std::chrono::steady_clock::now();
            const auto time = std::min(slice, std::chrono::duration_cast<std::chrono::milliseconds>(left));
            const auto count = std::max<std::chrono::milliseconds::rep>(time.count(), 0);
            output = Get_Output<OUTPUT>([&](OUTPUT& value) { return read(value, static_cast<unsigned long>(count)); });
            return output || std::chrono::steady_clock::now() >= until;
        });
        return output;
    });
}

std::optional<bool> Server_ReadBool(const Object& self, const S_Text& name, const S_Text& msgId, unsigned long timeout)
{
    return Read_InSlices<bool>(self, timeout, [&](bool& value, unsigned long slice) {
        return self->Server_ReadMsg_TAV_Bool(name, msgId, value, slice);
    });
}

std::optional<S_Text> Server_ReadText(const Object& self, const S_Text& name, const S_Text& msgId, unsigned int maxSize,
                                      unsigned long timeout)
{
    return Read_InSlices<S_Text>(self, timeout, [&](S_Text& text, unsigned long slice) {
        return self->Server_ReadMsg_TAV_String(name, msgId, text, maxSize, slice);
    });
}

// To one client after the other, as the operation does, but it would go on with the next after Ctrl-C. The clients are
// looked up at each turn: a signal's handler may have closed the server.
template <typename SEND>
bool Send_ToClients(const Object& self, SEND send)
{
    if (self->m_ServerSocket < 0 && !self->OpenServer_TAV()) return false;
    for (std::size_t i = 0;; ++i) {
        const auto server = self->m_ServerClients.find(self->m_ServerSocket);
        if (server == self->m_ServerClients.end() || i >= server->second.size()) return i > 0;
        const int socket = server->second[i].Socket;
        if (socket >= 0) Wait([&] { return send(socket); });
    }
}

bool Server_SendBool(const Object& self, const S_Text& msgId, bool value)
{
    return Send_ToClients(self, [&](int socket) { return self->_SendMsg_TAV_Bool(socket, msgId, value); });
}

bool Server_SendText(const Object& self, const S_Text& msgId, const S_Text& text)
{
    return Send_ToClients(self, [&](int socket) { return self->_SendMsg_TAV_String(socket, msgId, text); });
}

const unsigned char* Get_Bytes(const S_Data& data)
{
    return reinterpret_cast<const unsigned char*>(data.data());
}

unsigned int Get_Size(const S_Data& data)
{
    return static_cast<unsigned int>(data.size());
}

bool Send_Data(const Object& self, const S_Text& name, const S_Text& msgId, const S_Data& data)
{
    return Wait([&] { return self->SendMsg_TAV_Data(name, msgId, Get_Bytes(data), Get_Size(data)); });
}

bool Send_DataOn(const Object& self, int socket, const S_Text& msgId, const S_Data& data)
{
    return Wait([&] { return self->_SendMsg_TAV_Data(socket, msgId, Get_Bytes(data), Get_Size(data)); });
}

int Write_Data(const Object& self, int socket, const S_Data& buf)
{
    return Wait([&] { return self->WriteData(socket, buf.data(), Get_Size(buf)); });
}

std::optional<S_Data> Read_Data(const Object& self, int socket, unsigned int len, unsigned long timeout)
{
    return Wait([&] {
        return Get_Output<S_Data>([&](S_Data& data) {
            data.resize(len);
            const int count = self->ReadData(socket, data.data(), len, timeout);
            data.resize(static_cast<std::size_t>(std::max(count, 0)));
            return count;
        });
    });
}

std::optional<std::pair<S_Text, S_Text>> Get_ScanDevice(const C_Object& self, unsigned int index)
{
    return Get_Output<std::pair<S_Text, S_Text>>(
        [&](auto& device) { return self.Get_ScanDevice(index, device.first, device.second); });
}

bool Close_Server(C_Object& self, int socket)
{
    return self.CloseServer(socket == self.m_ServerSocket ? self.m_ServerSocket : socket);
}

// Leaves the number of the built-in server, as in C++, which is anybody's then.
bool Close_AllServer(C_Object& self)
{
    if (self.m_ServerClients.count(self.BuiltIn) != 0) self.BuiltIn = -1;
    return self.CloseAllServer();
}

// Stops the accept thread first, in slices: the operation waits for it, whatever comes.
bool Close_BuiltIn(const Object& self)
{
    return Wait([&] {
        self->m_StopAccept = true;
        Wait_Until([&](auto) {
            if (self->m_AcceptRunning) std::this_thread::sleep_for(std::chrono::milliseconds(1));
            return !self->m_AcceptRunning;
        });
        return self->CloseServer_TAV();
    });
}

// For `with`: closes all that the object knows of, outgoing connections, too. Those that are not where they were in the
// list have another's index, or none.
void Leave(const Object& self, const py::args&)
{
    std::set<int> sockets;
    for (const S_BT_ScanDevice& device : self->m_ScanDevices)
        sockets.insert(device.Socket);
    for (const int socket : sockets)
        if (!self->Disconnect(socket) && self->m_ClientSockets.count(socket) != 0) close(socket);
    if (self->m_ServerSocket >= 0) Close_BuiltIn(self);
    if (self->Is_Alone()) close(self->BuiltIn);
    self->Close();
    self->m_StopAccept = true;  // of a thread that had not begun
}

// The entry of an accept thread, when a program calls it: to Ctrl-C it is as if it had been told to stop.
void Accept_Clients(const Object& self)
{
    Wait([&] {
        try {
            return Run_Apart([object = self->Self.lock()] {
                C_TAV_Bluetooth::Thread_AcceptClient(static_cast<C_TAV_Bluetooth*>(object.get()));
                return true;
            });
        } catch (...) {
            self->m_StopAccept = true;
            throw;
        }
    });
}

// ---- Records and containers -----------------------------------------------------------------------------------------

// A record or a container as Python holds it: looked up at each use, since the one of an object may move, or go.
template <typename TARGET>
struct S_Held
{
    std::function<TARGET&()> Find;  // raises IndexError or KeyError when it is gone
};

template <typename RECORD, typename... ARGUMENTS>
S_Held<RECORD> Hold_New(ARGUMENTS&&... arguments)
{
    return {[own = std::make_shared<RECORD>(std::forward<ARGUMENTS>(arguments)...)]() -> RECORD& { return *own; }};
}

template <typename TARGET>
S_Held<TARGET> Hold_Field(const Object& object, TARGET C_TAV_Bluetooth::*field)
{
    return {[object, field]() -> TARGET& { return (*object).*field; }};
}

// A record's class, with its fields in their order: for repr() and ==, too.
template <typename RECORD>
class C_Record
{
public:
    using Held = S_Held<RECORD>;

    C_Record(py::module_& module, const char* name, const char* doc) : m_Class(module, name, doc)
    {
        m_Class.def("__repr__", [](const py::object& self) {
            py::list fields;
            for (const py::handle field : self.attr("__match_args__"))
                fields.append(py::str("{}={!r}").format(field, self.attr(field)));
            return py::str("{}({})").format(py::type::of(self).attr("__name__"), py::str(", ").attr("join")(fields));
        });
        m_Class.def("__copy__", [](const Held& self) { return Hold_New<RECORD>(self.Find()); });
        m_Class.def("__eq__", [](const py::object& self, const py::object& other) -> py::object {
            if (!py::isinstance(other, py::type::of(self)))
                return py::reinterpret_borrow<py::object>(Py_NotImplemented);
            for (const py::handle field : self.attr("__match_args__"))
                if (!self.attr(field).equal(other.attr(field))) return py::bool_(false);
            return py::bool_(true);
        });
        m_Class.attr("__match_args__") = py::tuple();
    }

    template <typename MAKE, typename... OPTIONS>
    C_Record& Make(MAKE make, const OPTIONS&... options)
    {
        m_Class.def(py::init(make), options...);
        return *this;
    }

    template <typename AS, typename FIELD>
    C_Record& Field(const char* name, FIELD RECORD::*field, const char* doc)
    {
        m_Class.def_property(
            name, [field](const Held& self) -> AS { return AS{self.Find().*field}; },
            [field](const Held& self, const AS& value) { self.Find().*field = value; }, doc);
        m_Class.attr("__match_args__") = py::object(m_Class.attr("__match_args__")) + py::make_tuple(name);
        return *this;
    }

private:
    py::class_<Held> m_Class;
};

// Adds what Python's abstract class makes of the few methods that are here: index, get, items, ...
void Add_Mixins(py::handle type, const char* base)
{
    const py::object abstract = py::module_::import("collections.abc").attr(base);
    for (const py::handle parent : abstract.attr("__mro__"))
        for (const py::handle name : py::list(parent.attr("__dict__")))
            if (!type.attr("__dict__").contains(name) &&
                PyFunction_Check(py::object(parent.attr("__dict__")[name]).ptr()))
                py::setattr(type, name, parent.attr("__dict__")[name]);
    abstract.attr("register")(type);
}

// A list of records. Its elements are references to places, as in C++: what is at the place now is what they show.
template <typename RECORD>
void Add_List(py::module_& module, const char* name)
{
    using List = S_Held<std::vector<RECORD>>;
    using Record = S_Held<RECORD>;
    const auto place = [](const List& list, py::ssize_t index, py::ssize_t extra) {
        const auto size = static_cast<py::ssize_t>(list.Find().size());
        if (index < 0) index += size;
        if (index < 0 || index >= size + extra) throw py::index_error("there is no such record");
        return index;
    };
    const auto get = [place](const List& list, py::ssize_t index) -> Record {
        index = place(list, index, 0);
        return {
            [place, list, index]() -> RECORD& { return list.Find()[static_cast<std::size_t>(place(list, index, 0))]; }};
    };
    py::class_<List> type(module, name);
    type.def("__len__", [](const List& list) { return list.Find().size(); })
        .def("__getitem__", get)
        .def("__getitem__",
             [get](const List& list, const py::slice& slice) {
                 py::list records;
                 std::size_t start = 0, stop = 0, step = 0, count = 0;
                 if (!slice.compute(list.Find().size(), &start, &stop, &step, &count)) throw py::error_already_set();
                 for (; count > 0; --count, start += step)
                     records.append(get(list, static_cast<py::ssize_t>(start)));
                 return records;
             })
        .def("__setitem__", [get](const List& list, py::ssize_t index,
                                  const Record& record) { get(list, index).Find() = RECORD(record.Find()); })
        .def("__delitem__",
             [place](const List& list, py::ssize_t index) {
                 index = place(list, index, 0);
                 list.Find().erase(list.Find().begin() + index);
             })
        .def("insert",
             [place](const List& list, py::ssize_t index, const Record& record) {
                 list.Find().insert(list.Find().begin() + place(list, index, 1), RECORD(record.Find()));
             })
        .def("append", [](const List& list, const Record& record) { list.Find().push_back(RECORD(record.Find())); })
        .def("clear", [](const List& list) { list.Find().clear(); })
        .def("__repr__", [](const py::object& self) { return py::repr(py::list(self)); });
    Add_Mixins(type, "Sequence");
}

// What a map's element is in Python, and back.
unsigned int Show(const S_Held<std::map<int, unsigned int>>& map, int key)
{
    return map.Find().at(key);
}
S_Held<std::vector<S_BT_ScanDevice>> Show(const S_Held<std::map<int, std::vector<S_BT_ScanDevice>>>& map, int key)
{
    return {[map, key]() -> std::vector<S_BT_ScanDevice>& {
        const auto found = map.Find().find(key);
        if (found == map.Find().end()) throw py::key_error(std::to_string(key));
        return found->second;
    }};
}
unsigned int Take(unsigned int value)
{
    return value;
}
std::vector<S_BT_ScanDevice> Take(const py::iterable& records)
{
    std::vector<S_BT_ScanDevice> taken;
    for (const py::handle record : records)
        taken.push_back(record.cast<const S_Held<S_BT_ScanDevice>&>().Find());
    return taken;
}

template <typename VALUE, typename GIVEN>
void Add_Map(py::module_& module, const char* name)
{
    using Map = S_Held<std::map<int, VALUE>>;
    const auto check = [](const Map& map, int key) {
        if (map.Find().count(key) == 0) throw py::key_error(std::to_string(key));
    };
    py::class_<Map> type(module, name);
    type.def("__len__", [](const Map& map) { return map.Find().size(); })
        .def("__getitem__",
             [check](const Map& map, int key) {
                 check(map, key);
                 return Show(map, key);
             })
        .def("__setitem__", [](const Map& map, int key, const GIVEN& value) { map.Find()[key] = Take(value); })
        .def("__delitem__",
             [check](const Map& map, int key) {
                 check(map, key);
                 map.Find().erase(key);
             })
        .def("__iter__",
             [](const Map& map) {
                 py::list keys;
                 for (const auto& entry : map.Find())
                     keys.append(entry.first);
                 return py::iter(keys);
             })
        .def("clear", [](const Map& map) { map.Find().clear(); })
        .def("__repr__", [](const py::object& self) { return py::repr(py::dict(self)); });
    Add_Mixins(type, "Mapping");
}

// ---- Services -------------------------------------------------------------------------------------------------------

// The value of a UUID as a number, whatever its kind.
py::int_ Get_Value(const uuid_t& uuid)
{
    if (uuid.type == SDP_UUID16) return uuid.value.uuid16;
    if (uuid.type == SDP_UUID32) return uuid.value.uuid32;
    if (uuid.type != SDP_UUID128) return 0;
    const py::bytes bytes(reinterpret_cast<const char*>(uuid.value.uuid128.data), sizeof(uuid.value.uuid128.data));
    return py::type::of(py::int_()).attr("from_bytes")(bytes, "big");
}

bool Is_Same(const uuid_t& left, const uuid_t& right)
{
    return left.type == right.type && Get_Value(left).equal(Get_Value(right));
}

uuid_t Make_UUID(std::uint8_t type, const py::int_& value)
{
    uuid_t uuid{};
    uuid.type = type;
    try {
        if (type == SDP_UUID16) uuid.value.uuid16 = value.cast<std::uint16_t>();
        if (type == SDP_UUID32) uuid.value.uuid32 = value.cast<std::uint32_t>();
        if (type == SDP_UUID128) {
            const std::string bytes = py::bytes(value.attr("to_bytes")(sizeof(uuid.value.uuid128.data), "big"));
            memcpy(uuid.value.uuid128.data, bytes.data(), bytes.size());
        }
    } catch (const std::exception&) {
        throw py::type_error("value is out of range");
    }
    return uuid;
}

}  // namespace

// ---- The table ------------------------------------------------------------------------------------------------------

static void Add_Services(py::module_& module)
{
    py::class_<sdp_profile_desc_t>(module, "sdp_profile_desc_t", "A profile of BlueZ, and its version.")
        .def(py::init([](const uuid_t& uuid, std::uint16_t version) {
                 return sdp_profile_desc_t{uuid, version};
             }),
             "uuid"_a, "version"_a)
        .def_property_readonly("uuid", [](const sdp_profile_desc_t& profile) { return profile.uuid; })
        .def_property_readonly("version", [](const sdp_profile_desc_t& profile) { return profile.version; })
        .def(
            "__eq__",
            [](const sdp_profile_desc_t& left, const sdp_profile_desc_t& right) {
                return left.version == right.version && Is_Same(left.uuid, right.uuid);
            },
            py::is_operator())
        .def("__repr__", [](const sdp_profile_desc_t& profile) {
            return py::str("sdp_profile_desc_t({!r}, {:#x})").format(profile.uuid, profile.version);
        });
    py::class_<uuid_t>(module, "uuid_t", "A UUID of BlueZ: type is one of SDP_UUID16, SDP_UUID32 and SDP_UUID128.")
        .def(py::init(&Make_UUID), "type"_a, "value"_a)
        .def_property_readonly("type", [](const uuid_t& uuid) { return uuid.type; })
        .def_property_readonly("value", &Get_Value)
        .def("__eq__", &Is_Same, py::is_operator())
        .def("__repr__",
             [](const uuid_t& uuid) { return py::str("uuid_t({:#x}, {:#x})").format(uuid.type, Get_Value(uuid)); });
    module.attr("SDP_UUID16") = SDP_UUID16;
    module.attr("SDP_UUID32") = SDP_UUID32;
    module.attr("SDP_UUID128") = SDP_UUID128;
}

static void Add_ScanDevice(py::module_& module)
{
    namespace doc = docstrings::S_BT_ScanDevice;
    using Record = S_BT_ScanDevice;
    C_Record<Record>(module, "S_BT_ScanDevice", doc::Class)
        .Make([] { return Hold_New<Record>(); })
        .Make([](const bdaddr_t& addr, const S_Text& addrText,
                 const S_Text& name) { return Hold_New<Record>(addr, addrText, name); },
              "addr"_a, "addrText"_a, "name"_a)
        .Field<bdaddr_t>("Addr", &Record::Addr, doc::Addr)
        .Field<S_Text>("AddrText", &Record::AddrText, doc::AddrText)
        .Field<S_Text>("Name", &Record::Name, doc::Name)
        .Field<int>("Socket", &Record::Socket, doc::Socket)
        .Field<unsigned char>("Port", &Record::Port, doc::Port);
    Add_List<Record>(module, "_ScanDevices");
}

static void Add_ServicesData(py::module_& module)
{
    namespace doc = docstrings::S_BT_ServicesData;
    using Record = S_BT_ServicesData;
    C_Record<Record>(module, "S_BT_ServicesData", doc::Class)
        .Make([] { return Hold_New<Record>(); })
        .Field<uuid_t>("ServiceId", &Record::ServiceId, doc::ServiceId)
        .Field<std::vector<uuid_t>>("ServiceClasses", &Record::ServiceClasses, doc::ServiceClasses)
        .Field<std::vector<sdp_profile_desc_t>>("ProfileDescs", &Record::ProfileDescs, doc::ProfileDescs)
        .Field<S_Text>("Name", &Record::Name, doc::Name)
        .Field<S_Text>("Description", &Record::Description, doc::Description)
        .Field<S_Text>("Provider", &Record::Provider, doc::Provider)
        .Field<int>("PortRFCOMM", &Record::PortRFCOMM, doc::PortRFCOMM);
    Add_List<Record>(module, "_ServicesDatas");
}

static void Add_Bluetooth(py::module_& module)
{
    namespace doc = docstrings::C_TAV_Bluetooth;
    using Bt = C_TAV_Bluetooth;
    const auto name = "name"_a, msgId = "msgId"_a, text = "text"_a, data = "data"_a, maxSize = "maxSize"_a;
    const auto timeout = "timeout"_a, socket = "socket"_a, channel = "channel"_a, index = "index"_a;
    const auto serverSocket = "serverSocket"_a, value = py::arg("value").noconvert();
    py::class_<C_Object, Object>(module, "C_TAV_Bluetooth", doc::Class)
        .def(py::init(&Make_Object), doc::C_TAV_Bluetooth)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", &Leave)
        .def("Close", Now(&Bt::Close), doc::Close)

        // Finding devices, and their list
        .def("BT_Scan", Waits(&Bt::BT_Scan), doc::BT_Scan)
        .def("BT_ParseFileDevices", Now(&Bt::BT_ParseFileDevices), doc::BT_ParseFileDevices)
        .def("Add_BT_Device", Now(&Bt::Add_BT_Device), name, "addrText"_a, socket, "port"_a, doc::Add_BT_Device)
        .def("Get_ScanDevice", &Get_ScanDevice, index, doc::Get_ScanDevice)
        .def("Get_IndexScanDevice", Now(&Bt::Get_IndexScanDevice), name, doc::Get_IndexScanDevice)

        // Connecting to other bricks
        .def("Connect", Waits(&Bt::Connect), name, channel, timeout, doc::Connect)
        .def("Connect_Index", Waits(&Bt::Connect_Index), index, channel, timeout, doc::Connect_Index)
        .def("isConnected", Now(&Bt::isConnected), name, doc::isConnected)
        .def("Disconnect", Now(&Bt::Disconnect), socket, doc::Disconnect)

        // Messages in the named format
        .def("SendMsg_TAV_Data", &Send_Data, name, msgId, data, doc::SendMsg_TAV_Data)
        .def("SendMsg_TAV_Bool", Waits(&Bt::SendMsg_TAV_Bool), name, msgId, value, doc::SendMsg_TAV_Bool)
        .def("SendMsg_TAV_String", Waits(&Bt::SendMsg_TAV_String), name, msgId, text, doc::SendMsg_TAV_String)
        .def("ReadMsg_TAV_Data", ByName::Reads<S_Data>(&Bt::ReadMsg_TAV_Data), name, msgId, maxSize, timeout,
             doc::ReadMsg_TAV_Data)
        .def("ReadMsg_TAV_Bool", ByName::Reads<bool>(&Bt::ReadMsg_TAV_Bool), name, msgId, timeout,
             doc::ReadMsg_TAV_Bool)
        .def("ReadMsg_TAV_String", ByName::Reads<S_Text>(&Bt::ReadMsg_TAV_String), name, msgId, maxSize, timeout,
             doc::ReadMsg_TAV_String)

        // Messages in the classic mailbox format
        .def("SendMsg_TAVOrg_Bool", Waits(&Bt::SendMsg_TAVOrg_Bool), name, msgId, value, doc::SendMsg_TAVOrg_Bool)
        .def("SendMsg_TAVOrg_String", Waits(&Bt::SendMsg_TAVOrg_String), name, msgId, text, doc::SendMsg_TAVOrg_String)
        .def("ReadMsg_TAVOrg_Bool", ByName::Reads<bool>(&Bt::ReadMsg_TAVOrg_Bool), name, msgId, timeout,
             doc::ReadMsg_TAVOrg_Bool)
        .def("ReadMsg_TAVOrg_String", ByName::Reads<S_Text>(&Bt::ReadMsg_TAVOrg_String), name, msgId, maxSize, timeout,
             doc::ReadMsg_TAVOrg_String)

        // The built-in server
        .def("OpenServer_TAV", Now(&Bt::OpenServer_TAV), doc::OpenServer_TAV)
        .def("CloseServer_TAV", &Close_BuiltIn, doc::CloseServer_TAV)
        .def("Server_SendMsg_TAV_Bool", &Server_SendBool, msgId, value, doc::Server_SendMsg_TAV_Bool)
        .def("Server_SendMsg_TAV_String", &Server_SendText, msgId, text, doc::Server_SendMsg_TAV_String)
        .def("Server_ReadMsg_TAV_Bool", &Server_ReadBool, name, msgId, timeout, doc::Server_ReadMsg_TAV_Bool)
        .def("Server_ReadMsg_TAV_String", &Server_ReadText, name, msgId, maxSize, timeout,
             doc::Server_ReadMsg_TAV_String)

        // Servers on any channel
        .def("OpenServer", Now(&Bt::OpenServer), channel, doc::OpenServer)
        .def("AcceptClient", Waits(&Bt::AcceptClient), serverSocket, timeout, doc::AcceptClient)
        .def("CloseClient", Now(&Bt::CloseClient), socket, doc::CloseClient)
        .def("CloseAllClient", Now(&Bt::CloseAllClient), serverSocket, doc::CloseAllClient)
        .def("CloseServer", &Close_Server, socket, doc::CloseServer)
        .def("CloseAllServer", &Close_AllServer, doc::CloseAllServer)
        .def_static("Thread_AcceptClient", &Accept_Clients, "object"_a, doc::Thread_AcceptClient)

        // Services of a device
        .def("Get_BT_Services", Waits(&Bt::Get_BT_Services), name, doc::Get_BT_Services)
        .def("Get_BT_Services_Count", Waits(&Bt::Get_BT_Services_Count), name, doc::Get_BT_Services_Count)
        .def("Get_BT_Services_Name", ByIndex::Gets<S_Text>(&Bt::Get_BT_Services_Name), index, doc::Get_BT_Services_Name)
        .def("Get_BT_Services_Description", ByIndex::Gets<S_Text>(&Bt::Get_BT_Services_Description), index,
             doc::Get_BT_Services_Description)
        .def("Get_BT_Services_Provider", ByIndex::Gets<S_Text>(&Bt::Get_BT_Services_Provider), index,
             doc::Get_BT_Services_Provider)
        .def("Get_BT_Services_PortRFCOMM", ByIndex::Gets<int>(&Bt::Get_BT_Services_PortRFCOMM), index,
             doc::Get_BT_Services_PortRFCOMM)
        .def("Convert_UUID_to_String", S_Reader<const uuid_t*>::Gets<S_Text>(&Bt::Convert_UUID_to_String), "uuid"_a,
             doc::Convert_UUID_to_String)

        // Messages on a connected socket
        .def("_SendMsg_TAV_Data", &Send_DataOn, socket, msgId, data, doc::_SendMsg_TAV_Data)
        .def("_SendMsg_TAV_Bool", Waits(&Bt::_SendMsg_TAV_Bool), socket, msgId, value, doc::_SendMsg_TAV_Bool)
        .def("_SendMsg_TAV_String", Waits(&Bt::_SendMsg_TAV_String), socket, msgId, text, doc::_SendMsg_TAV_String)
        .def("_ReadMsg_TAV_Data", BySocket::Reads<S_Data>(&Bt::_ReadMsg_TAV_Data), socket, name, msgId, maxSize,
             timeout, doc::_ReadMsg_TAV_Data)
        .def("_ReadMsg_TAV_Bool", BySocket::Reads<bool>(&Bt::_ReadMsg_TAV_Bool), socket, name, msgId, timeout,
             doc::_ReadMsg_TAV_Bool)
        .def("_ReadMsg_TAV_String", BySocket::Reads<S_Text>(&Bt::_ReadMsg_TAV_String), socket, name, msgId, maxSize,
             timeout, doc::_ReadMsg_TAV_String)
        .def("_SendMsg_TAVOrg_Bool", Waits(&Bt::_SendMsg_TAVOrg_Bool), socket, msgId, value, doc::_SendMsg_TAVOrg_Bool)
        .def("_SendMsg_TAVOrg_String", Waits(&Bt::_SendMsg_TAVOrg_String), socket, msgId, text,
             doc::_SendMsg_TAVOrg_String)
        .def("_ReadMsg_TAVOrg_Bool", BySocket::Reads<bool>(&Bt::_ReadMsg_TAVOrg_Bool), socket, name, msgId, timeout,
             doc::_ReadMsg_TAVOrg_Bool)
        .def("_ReadMsg_TAVOrg_String", BySocket::Reads<S_Text>(&Bt::_ReadMsg_TAVOrg_String), socket, name, msgId,
             maxSize, timeout, doc::_ReadMsg_TAVOrg_String)

        // Timed transfer
        .def("ReadData", &Read_Data, socket, "len"_a, timeout, doc::ReadData)
        .def("WriteData", &Write_Data, socket, "buf"_a, doc::WriteData)

        // Fields
        .def_property_readonly(
            "m_ScanDevices", [](const Object& self) { return Hold_Field(self, &Bt::m_ScanDevices); },
            doc::m_ScanDevices)
        .def_property_readonly(
            "m_ClientSockets", [](const Object& self) { return Hold_Field(self, &Bt::m_ClientSockets); },
            doc::m_ClientSockets)
        .def_property_readonly(
            "m_Services", [](const Object& self) { return Hold_Field(self, &Bt::m_Services); }, doc::m_Services)
        .def_property_readonly(
            "m_ServerClients", [](const Object& self) { return Hold_Field(self, &Bt::m_ServerClients); },
            doc::m_ServerClients)
        .def_readwrite("m_ServerSocket", &C_Object::m_ServerSocket, doc::m_ServerSocket)
        .def_readwrite("m_StopAccept", &C_Object::m_StopAccept, doc::m_StopAccept)
        .def_readwrite("m_AcceptRunning", &C_Object::m_AcceptRunning, doc::m_AcceptRunning);
    Add_Map<unsigned int, unsigned int>(module, "_ClientSockets");
    Add_Map<std::vector<S_BT_ScanDevice>, py::iterable>(module, "_ServerClients");
}

PYBIND11_MODULE(tav_bluetooth, module)
{
    module.doc() = "Messages between robot bricks over Bluetooth.";
    module.attr("__version__") =
        py::str("{}.{}.{}").format(TAV_BLUETOOTH_MAJOR, TAV_BLUETOOTH_MINOR, TAV_BLUETOOTH_PATCH);
    Add_Services(module);
    Add_ScanDevice(module);
    Add_ServicesData(module);
    Add_Bluetooth(module);
}
