// Bytes as hexadecimal text, and their way to the debug log.
#pragma once

#include "api/tav_c_api.h"

#include <string>

namespace tav_c_api_impl {

// Replaces `text` with two lower-case hexadecimal digits for each of the `len` bytes at `data`, with nothing
// between them: 00 0A FF gives 000aff. A null `data` gives an empty text.
template <typename BYTE>
void Convert_BinaryDataToText(const BYTE* data, unsigned int len, std::string& text)
{
    constexpr const char* DIGITS = "0123456789abcdef";
    text.clear();
    if (data == nullptr || len == 0) return;
    text.resize(std::string::size_type{2} * len);
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(data[i / 2]);
        text[i] = DIGITS[i % 2 == 0 ? byte >> 4 : byte & 0x0F];
    }
}

}  // namespace tav_c_api_impl

namespace tav_c_api {

// Writes the `len` bytes at `data` to the debug log as one hexadecimal line, if logging is on; otherwise no text
// is built and the logger is not called. The only log text of the module that ends in a line break. Always true.
template <typename BYTE>
bool WriteLogBinaryData_Dbg(const BYTE* data, unsigned int len)
{
    if (!g_isLog_Quorvant_TAV) return true;
    std::string text;
    tav_c_api_impl::Convert_BinaryDataToText(data, len, text);
    WriteLog_Dbg("%s\n", text.c_str());
    return true;
}

}  // namespace tav_c_api
