// A race in the accept thread that is not there by design: the sanitizer is expected to report it, whatever else tests/
// tells it to accept.
#include "api/tav_c_api.h"
#include "bluetooth/C_TAV_Bluetooth.h"
#include "sim/air.h"

#include <unistd.h>

static int g_Lines = 0;

bool tav_c_api::g_isLog_Quorvant_TAV = false;
void tav_c_api::WriteLog_Dbg(const char*, ...)
{
    ++g_Lines;  // by both threads
}
bool tav_c_api_impl::Get_TAVBrickName(std::string&)
{
    return false;
}
bool tav_c_api_impl::DeleteFile(const std::string&)
{
    return false;
}

int main()
{
    tav_air::Enter("race-" + std::to_string(getpid()), 1000);
    tav_air::Put({"02:00:00:00:00:01", "Robot1"});
    tav_c_api_impl::C_TAV_Bluetooth bluetooth;
    bluetooth.OpenServer_TAV();
    while (!bluetooth.m_AcceptRunning)
        usleep(1000);
    return bluetooth.Connect_Index(0, 1, 0) == -1 && bluetooth.CloseServer_TAV() ? 1 : 0;
}
