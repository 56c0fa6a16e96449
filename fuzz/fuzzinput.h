// Reading a fuzz input as a small stream of pieces: bytes, and length-prefixed chunks.
#ifndef TOV_FUZZ_FUZZINPUT_H
#define TOV_FUZZ_FUZZINPUT_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

class FuzzInput {
public:
    FuzzInput(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

    bool empty() const { return m_pos >= m_size; }
    size_t remaining() const { return m_size - m_pos; }

    uint8_t byte()
    {
        return empty() ? 0 : m_data[m_pos++];
    }

    // Up to n bytes (fewer at the end of the input).
    std::string bytes(size_t n)
    {
        n = std::min(n, remaining());
        std::string out(reinterpret_cast<const char*>(m_data + m_pos), n);
        m_pos += n;
        return out;
    }

    // A chunk whose length is the next byte.
    std::string chunk() { return bytes(byte()); }

    std::string rest() { return bytes(remaining()); }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

#endif
