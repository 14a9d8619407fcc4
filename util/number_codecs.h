// Little-endian numbers in byte buffers, for the numeric fields of the classic mailbox messages.
#pragma once

#include <type_traits>

namespace tav_c_api_impl {

// Writes the `nbytes` least significant bytes of `value` to `buf`, least significant first; a negative value in
// two's complement. `nbytes` must not exceed sizeof(value) and `buf` must have room for it; neither is checked.
//   unsigned 0x1234, 2 bytes: 34 12        int -1, 2 bytes: FF FF
template <typename NUMBER, typename BUFFER>
void Write_NumBinary_To_Buf(NUMBER value, BUFFER buf, unsigned int nbytes)
{
    const auto bits = static_cast<std::make_unsigned_t<NUMBER>>(value);
    for (unsigned int i = 0; i < nbytes; ++i)
        buf[i] = static_cast<unsigned char>((bits >> (8 * i)) & 0xFFU);
}

// Reads `nbytes` raw bytes (not decimal digits) of `buf` into `out` as an unsigned little-endian number. Bytes
// beyond the width of NUMBER are shifted out again; 0 bytes give 0 and leave `buf` unread.
//   34 12: 0x1234        80 00: 128        FF FF: 65535
template <typename NUMBER, typename BYTE>
void Write_BufByte_To_NumDec(const BYTE* buf, unsigned int nbytes, NUMBER& out)
{
    static_assert(std::is_unsigned_v<NUMBER>, "the number wraps on purpose");
    out = 0;
    for (unsigned int i = nbytes; i > 0; --i)
        out = (out << 8) + static_cast<unsigned char>(buf[i - 1]);
}

}  // namespace tav_c_api_impl
