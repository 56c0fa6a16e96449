// V1 module answers: what the link hands over (any count, any bytes) decoded as
// acquisition_carteV1 decodes it, and good answers applied as a poll cycle applies them. An input
// is a run of exchanges, so range counting and sensor flagging see long sequences.
#include "fuzz/fuzzinput.h"
#include "mesure/mesv1modul.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The driver's start lines would drown libFuzzer's own output.
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    MesV1Modul modul(nullptr);
    FuzzInput in(data, size);
    while (!in.empty()) {
        // The count the link reports: -1 (no request out) to 34, its whole buffer.
        const int count = in.byte() % 36 - 1;
        char answer[MesV1Modul::ANSWER_LENGTH + 1] = {};
        const std::string bytes = in.bytes(MesV1Modul::ANSWER_LENGTH);
        memcpy(answer, bytes.data(), bytes.size());

        char fields[MesV1Modul::FIELD_COUNT][MesV1Modul::FIELD_SIZE];
        memset(fields, 'x', sizeof fields);
        const int result = MesV1Modul::CMv1_decodeAnswer(answer, count, fields[0], fields[1],
                                                         fields[2], fields[3], fields[4]);
        if (result < MesV1Modul::RES_NO_ANSWER || result > MesV1Modul::RES_OK || result == 0)
            abort();
        if (result == MesV1Modul::RES_OK || result == MesV1Modul::RES_BAD_HEADER) {
            for (const auto& field : fields)
                if (field[MesV1Modul::FIELD_SIZE - 1] != '\0')
                    abort();
        }
        if (result == MesV1Modul::RES_OK)
            modul.CMv1_applyReadings(fields[0], fields[1], fields[2], fields[3], fields[4]);
    }
    // Temperatures are stored only in range or as the flag value.
    for (int i = 1; i <= 3; ++i) {
        const float t = modul.CMv1_getMesureValue(i);
        if (t != MesV1Modul::FLAGGED_VALUE && t != 0.0f && !(t >= -45.0f && t <= 95.0f))
            abort();
    }
    for (int id = 0; id <= 11; ++id)
        (void)modul.getDATA_struct(id);
    return 0;
}
