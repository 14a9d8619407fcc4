// The module waits by select, and an fd_set has room for the descriptors below 1024 alone.
#pragma once

namespace tav_host {

// Lowers what this process may open to 1024 descriptors (RLIMIT_NOFILE, the soft limit), as the module needs it: where
// more are allowed, peers that connect push a socket beyond, and the module writes outside its fd_set. Leaves a lower
// limit as it is. For every program that serves, before it does; what is open already stays open.
void Limit_Descriptors();

}  // namespace tav_host
