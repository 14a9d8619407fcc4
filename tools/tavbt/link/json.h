// Messages as JSON, both ways.
#pragma once

#include "tools/tavbt/link/format.h"

#include <nlohmann/json.hpp>
#include <string>

namespace tavbt {

// Kind, sender, id and value, as results show them. Data is in hexadecimal, and what is no UTF-8 stands there again,
// so, under its name with "_hex".
nlohmann::ordered_json To_Json(const S_Message& message);

// A message to be sent, and to which client; empty: to all.
struct S_Outgoing
{
    S_Message Message;
    std::string To;
};

// Why a line is none, and where.
struct S_Flaw
{
    std::size_t Column;  // from 1, in bytes
    std::string What;
};

// The other way round. What results have beside these fields is not looked at; anything else is an error: throws
// S_Flaw.
S_Outgoing From_Json(const std::string& line);

}  // namespace tavbt
