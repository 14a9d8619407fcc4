// What messages allocate: a send its message, a read through the fixed buffer nothing beyond the returned text.
#include "api/tav_c_api.h"
#include "bluetooth/C_TAV_Bluetooth.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <utility>

static std::size_t g_Count = 0;
void* operator new(std::size_t size)
{
    ++g_Count;
    if (void* const memory = malloc(size)) return memory;
    std::abort();
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

// Allocations since the last call, if the operation in between was done.
static std::size_t Take_Count(bool done)
{
    return done ? std::exchange(g_Count, 0) : 999;
}

TEST(Allocations, OneToSendAndNoneToRead)
{
    tav_c_api_impl::C_TAV_Bluetooth bt;
    const std::string from = "AB", id = "abc", text(800, 'x');
    std::string out(1000, ' ');
    bool value = false;
    int ends[2] = {};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    g_Count = 0;
    EXPECT_EQ(Take_Count(bt._SendMsg_TAV_Bool(ends[0], id, true)), 0U);
    EXPECT_EQ(Take_Count(bt._ReadMsg_TAV_Bool(ends[1], from, id, value, 0)), 0U);
    EXPECT_EQ(Take_Count(bt._SendMsg_TAV_String(ends[0], id, text)), 1U);
    EXPECT_EQ(Take_Count(bt._ReadMsg_TAV_String(ends[1], from, id, out, 10, 0) == 800), 0U);
    EXPECT_EQ(Take_Count(bt._SendMsg_TAVOrg_Bool(ends[0], id, true)), 0U);
    EXPECT_EQ(Take_Count(bt._ReadMsg_TAVOrg_Bool(ends[1], from, id, value, 0)), 0U);
    EXPECT_EQ(Take_Count(bt._SendMsg_TAVOrg_String(ends[0], id, text)), 1U);
    EXPECT_EQ(Take_Count(bt._ReadMsg_TAVOrg_String(ends[1], from, id, out, 10, 0) == 800), 0U);
}
