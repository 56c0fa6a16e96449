// First-generation measurement module: a fixed ASCII poll, five numeric fields in the answer,
// converted to a weight, three temperatures and a 4-20 mA pressure. Values and configuration are
// each guarded by a mutex taken with a 2-second deadline, so that the interface thread may read
// while the test thread polls.
#ifndef TOV_MESURE_MESV1MODUL_H
#define TOV_MESURE_MESV1MODUL_H

#include "mesure/cmparamvalue.h"

#include <cstddef>
#include <cstdint>
#include <mutex>

class CComRS485;

#pragma pack(push, 1)
struct cmV1_config_t {
    uint32_t baudrate;
    float pressure20mA;
    float pressure4mA;
    uint8_t reserved[12];
};

// Index 0 weight, 1 to 3 temperatures (fields 2 to 4), 4 pressure.
struct cmV1_datas_t {
    float values[5];
};

struct cmV1_proc_values_t {
    uint8_t state;          // 0 never connected, 1 connected, 2 lost
    int32_t commCounter;    // consecutive failed exchanges
    uint8_t sensorError[5];
    int32_t rangeCounter[5]; // -1: sensor flagged
    uint8_t pressureCalib;
    int32_t pressureCalibWork[2];
};
#pragma pack(pop)

static_assert(sizeof(cmV1_config_t) == 24, "cmV1_config_t is 24 bytes");
static_assert(offsetof(cmV1_config_t, pressure20mA) == 4, "pressure at 20 mA at offset 4");
static_assert(offsetof(cmV1_config_t, pressure4mA) == 8, "pressure at 4 mA at offset 8");
static_assert(offsetof(cmV1_config_t, reserved) == 12, "reserved bytes at offset 12");
static_assert(sizeof(cmV1_datas_t) == 20, "cmV1_datas_t is 20 bytes");

class MesV1Modul {
public:
    // Exchange results.
    enum { RES_OK = 1, RES_BAD_HEADER = -1, RES_ECHO = -2, RES_BAD_LENGTH = -3, RES_NO_ANSWER = -4 };
    enum { FIELD_COUNT = 5, FIELD_SIZE = 6, ANSWER_LENGTH = 33, POLL_LENGTH = 5 };
    static const int FLAG_AFTER = 64; // a counter above this flags the sensor
    static constexpr float FLAGGED_VALUE = 999.0f;

    explicit MesV1Modul(CComRS485* link);
    virtual ~MesV1Modul();
    MesV1Modul(const MesV1Modul&) = delete;
    MesV1Modul& operator=(const MesV1Modul&) = delete;

    bool initMesV1Modul();
    void closeMesV1Modul();

    bool lock_CMv1config();
    bool lock_CMv1datas();
    void unlock_CMv1config();
    void unlock_CMv1datas();

    static void cfg_initCMv1_Config(cmV1_config_t* p);
    static void cfg_initCMv1_Data(cmV1_datas_t* p);
    static void cfg_initCMv1_ProcValue(cmV1_proc_values_t* p);
    void cfg_getCMv1_Config(cmV1_config_t* p);
    void cfg_setCMv1_Config(const cmV1_config_t* p);
    void cfg_getCMv1_Data(cmV1_datas_t* p);
    void cfg_setCMv1_Data(const cmV1_datas_t* p);

    float CMv1_getMesureValue(int i);
    uint8_t isCMv1connected() const { return m_proc.state; }
    int CMv1commCounter() const { return m_proc.commCounter; }
    void setCMv1commCounter(int count) { m_proc.commCounter = count; }
    // 0 also when the data lock times out.
    uint8_t CMv1sensorError(int i);
    void CMv1_startPressureCalib(bool start);

    bool CMV1_initComm();
    // One exchange at baud; fields are 6-byte buffers (5 characters and a zero).
    int acquisition_carteV1(int baud, char* f1, char* f2, char* f3, char* f4, char* f5);
    // The answer of count bytes as acquisition_carteV1 reads it: its result, and the five fields
    // copied (each 5 characters and a zero) when the answer has the right length and no echo.
    static int CMv1_decodeAnswer(const char* answer, int count, char* f1, char* f2, char* f3,
                                 char* f4, char* f5);
    // One poll cycle: exchange, then the readings of the answer. The exchange's result.
    int CM1_sendTo();
    // Steps of a good cycle after the exchange: reconnection, conversions, range counting and
    // flagging, from the five text fields (each read up to 5 characters).
    void CMv1_applyReadings(const char* f1, const char* f2, const char* f3, const char* f4,
                            const char* f5);

    cmParamValue_t getDATA_struct(int id);
    bool setDATA_struct(int id, void* value);

private:
    void countOrStore(int index, float value, bool inRange);

    std::timed_mutex m_configLock;
    std::timed_mutex m_dataLock;
    CComRS485* m_link;
    char m_fields[FIELD_COUNT][FIELD_SIZE];
    cmV1_config_t m_config;
    cmV1_datas_t m_datas;
    cmV1_proc_values_t m_proc;
};

#endif
