#include "host/descriptors.h"

#include <algorithm>
#include <sys/resource.h>
#include <sys/select.h>

namespace tav_host {

void Limit_Descriptors()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) < 0) return;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, FD_SETSIZE);
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace tav_host
