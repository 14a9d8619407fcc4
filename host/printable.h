// What other devices say may hold anything, and terminals obey some of it.
#pragma once

#include <string>
#include <string_view>

namespace tav_host {

// The text as one line that a terminal only shows: control characters, those that turn the direction of writing round,
// and bytes that are not UTF-8 become \x1B and the like, byte by byte.
std::string Printable(std::string_view text);

}  // namespace tav_host
