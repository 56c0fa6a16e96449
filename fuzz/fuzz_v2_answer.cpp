// V2 module answers of any length through CM_parseRX_Datas, in sequences, with the driver's next
// command set before each as the state machine would have left it. Flags in the input may repair a
// frame's address, length field or CRC so that the commands' handling is reached, not only the
// checks in front of it.
#include "fuzz/fuzzinput.h"
#include "mesure/ccomrs485.h"
#include "mesure/mesv2modul.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    MesV2Modul modul(nullptr);
    FuzzInput in(data, size);
    if (modul.CM_parseRX_Datas(nullptr, 0) != -1)
        abort();
    while (!in.empty()) {
        modul.setCMcmdToSend(in.byte());
        const uint8_t flags = in.byte();
        const std::string chunk = in.chunk();
        // A buffer of exactly the answer's size: a read past it is a sanitizer report.
        std::vector<unsigned char> frame(chunk.begin(), chunk.end());
        const size_t n = frame.size();
        if ((flags & 1) && n >= 1)
            frame[0] = 1; // the default module address
        if ((flags & 2) && n >= MesV2Modul::HEADER_LENGTH) {
            const size_t payload = n - MesV2Modul::HEADER_LENGTH;
            frame[1] = static_cast<unsigned char>(payload & 0xFF);
            frame[2] = static_cast<unsigned char>(payload >> 8);
        }
        if ((flags & 4) && n >= MesV2Modul::HEADER_LENGTH) {
            const unsigned short crc = CComRS485::calculateCRC(
                frame.data() + MesV2Modul::HEADER_LENGTH,
                static_cast<unsigned>(n - MesV2Modul::HEADER_LENGTH));
            frame[4] = static_cast<unsigned char>(crc & 0xFF);
            frame[5] = static_cast<unsigned char>(crc >> 8);
        }
        const int result = modul.CM_parseRX_Datas(n == 0 ? nullptr : frame.data(), static_cast<int>(n));
        if (result != 0 && result != -1)
            abort();
        // The same bytes with a count one short (a lost last byte) must be rejected as a whole.
        if ((flags & 8) && n > MesV2Modul::HEADER_LENGTH && result == 0
            && modul.CM_parseRX_Datas(frame.data(), static_cast<int>(n) - 1) != -1)
            abort();
    }
    for (int i = 0; i <= 7; ++i)
        (void)modul.CM_getMesureValue(i);
    for (int id = 114; id <= 130; ++id)
        (void)modul.getCFG_struct(id);
    for (int i = -1; i <= 5; ++i)
        (void)modul.cfg_getCM_SensorCalibState(i);
    (void)modul.isCMconnected();
    (void)modul.isCMconfigured();
    return 0;
}
