// What messages allocate: docs/performance.md has it as a table, whose rows are compared with what is counted here.
#include "api/tav_c_api.h"
#include "bluetooth/C_TAV_Bluetooth.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <new>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

static std::size_t g_Count = 0;
void* operator new(std::size_t size)
{
    ++g_Count;
    if (void* const memory = malloc(size)) return memory;
    std::abort();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept  // a sanitizer's own does not call the one above
{
    return operator new(size);
}
void* operator new[](std::size_t size)
{
    return operator new(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return operator new(size);
}
void operator delete[](void* memory) noexcept
{
    free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept
{
    free(memory);
}
void operator delete(void* memory) noexcept
{
    free(memory);
}
void operator delete(void* memory, std::size_t) noexcept
{
    free(memory);
}

bool tav_c_api::g_isLog_Quorvant_TAV = false;
void tav_c_api::WriteLog_Dbg(const char*, ...) {}
bool tav_c_api_impl::Get_TAVBrickName(std::string& name)
{
    return name = "AB", true;
}
bool tav_c_api_impl::DeleteFile(const std::string&)
{
    return true;
}

namespace {

struct S_Link
{
    tav_c_api_impl::C_TAV_Bluetooth Bluetooth;
    int Near = -1, Far = -1;
    std::string Text, Data = std::string(10000, ' ');  // with room for what is read
    bool Value = false;

    unsigned int Size() const { return static_cast<unsigned int>(Text.size()); }
};

const std::string FROM = "AB", ID = "abc";
const std::size_t SIZES[] = {8, 800, 10000};

const struct
{
    const char* What;
    bool (*Send)(S_Link&);
    bool (*Read)(S_Link&);
} KINDS[] = {
    {"named bool", [](S_Link& l) { return l.Bluetooth._SendMsg_TAV_Bool(l.Near, ID, true); },
     [](S_Link& l) { return l.Bluetooth._ReadMsg_TAV_Bool(l.Far, FROM, ID, l.Value, 0); }},
    {"named text", [](S_Link& l) { return l.Bluetooth._SendMsg_TAV_String(l.Near, ID, l.Text); },
     [](S_Link& l) { return l.Bluetooth._ReadMsg_TAV_String(l.Far, FROM, ID, l.Data, l.Size(), 0) >= 0; }},
    {"named data",
     [](S_Link& l) {
         const auto* const bytes = reinterpret_cast<const unsigned char*>(l.Text.data());
         return l.Bluetooth._SendMsg_TAV_Data(l.Near, ID, bytes, l.Size());
     },
     [](S_Link& l) { return l.Bluetooth._ReadMsg_TAV_Data(l.Far, FROM, ID, l.Data, l.Size(), 0) >= 0; }},
    {"classic bool", [](S_Link& l) { return l.Bluetooth._SendMsg_TAVOrg_Bool(l.Near, ID, true); },
     [](S_Link& l) { return l.Bluetooth._ReadMsg_TAVOrg_Bool(l.Far, FROM, ID, l.Value, 0); }},
    {"classic text", [](S_Link& l) { return l.Bluetooth._SendMsg_TAVOrg_String(l.Near, ID, l.Text); },
     [](S_Link& l) { return l.Bluetooth._ReadMsg_TAVOrg_String(l.Far, FROM, ID, l.Data, l.Size(), 0) >= 0; }},
};

// Allocations of an operation, as a cell of the table.
std::string Count(bool (*operation)(S_Link&), S_Link& link)
{
    g_Count = 0;
    const bool done = operation(link);
    const std::size_t count = g_Count;
    return done ? " | " + std::to_string(count) : " | failed";
}

}  // namespace

TEST(Allocations, AreWhatTheDocumentSays)
{
    std::ifstream file(DOCUMENT);
    const std::string document(std::istreambuf_iterator<char>(file), {});
    for (const auto& kind : KINDS) {
        S_Link link;
        int ends[2] = {};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        link.Near = ends[0];
        link.Far = ends[1];
        std::string sent, read;
        for (const std::size_t size : SIZES) {
            link.Text.assign(size, 'x');
            sent += Count(kind.Send, link);
            read += Count(kind.Read, link);
        }
        std::string row = "| ";
        row.append(kind.What).append(sent).append(read).append(" |\n");
        EXPECT_NE(document.find(row), std::string::npos) << "not in " << DOCUMENT << ": " << row;
        close(link.Near);
        close(link.Far);
    }
}
