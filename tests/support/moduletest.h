// The module tests' own side of the protocols: the frame CRC from its bit-by-bit definition and a V2
// answer framed as a module frames it.
#ifndef TOV_TESTS_MODULETEST_H
#define TOV_TESTS_MODULETEST_H

#include <algorithm>
#include <vector>

namespace tovtest {

using Bytes = std::vector<unsigned char>;

// CRC-16/XMODEM: polynomial 0x1021, initial 0, no reflection, no final XOR.
inline unsigned short xmodemCrc(const unsigned char* data, size_t len)
{
    unsigned crc = 0;
    for (size_t i = 0; i < len; ++i) {
        crc ^= static_cast<unsigned>(data[i]) << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc & 0x8000) ? ((crc << 1) ^ 0x1021) & 0xFFFF : (crc << 1) & 0xFFFF;
    }
    return static_cast<unsigned short>(crc);
}

inline Bytes bytesOf(const void* data, size_t n)
{
    const unsigned char* p = static_cast<const unsigned char*>(data);
    return Bytes(p, p + n);
}

// A V2 answer: address, payload length, command, CRC of the payload, all little-endian.
// lengthDelta falsifies the length field after the CRC is taken.
inline Bytes v2Answer(unsigned char cmd, const Bytes& payload, int lengthDelta = 0,
                      unsigned char address = 1)
{
    const unsigned n = static_cast<unsigned>(static_cast<int>(payload.size()) + lengthDelta);
    const unsigned short crc = xmodemCrc(payload.data(), payload.size());
    Bytes frame = {address, static_cast<unsigned char>(n & 0xFF), static_cast<unsigned char>(n >> 8),
                   cmd, static_cast<unsigned char>(crc & 0xFF), static_cast<unsigned char>(crc >> 8)};
    frame.resize(6 + payload.size());
    std::copy(payload.begin(), payload.end(), frame.begin() + 6);
    return frame;
}

} // namespace tovtest

#endif
