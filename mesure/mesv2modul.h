// Second-generation measurement module: binary, CRC-checked frames, a small state machine that
// picks the next command from the last answer, a watchdog that reconnects a silent module, and the
// configuration exchange between unit and module on first contact. Configuration and values are
// each guarded by a mutex taken with a 2-second deadline.
#ifndef TOV_MESURE_MESV2MODUL_H
#define TOV_MESURE_MESV2MODUL_H

#include "mesure/cmparamvalue.h"

#include <cstddef>
#include <cstdint>
#include <mutex>

class CComRS485;

#pragma pack(push, 1)
struct cm_calib_state_t {
    int8_t gaugeChannel; // -1: no gauge under calibration
    uint8_t state1;
    uint8_t state2;
    uint8_t pt100[3];    // one flag per PT100 channel
};

struct cm_module_info_t {
    uint8_t configured; // 1 when the module holds a configuration
    float version;
};

struct cm_proc_values_t {
    uint8_t state;       // 0 not connected, 1 connected, 2 lost
    uint8_t nextCommand;
    uint8_t reserved[4];
    int32_t lastAnswerTime; // seconds, 0 = none
    uint8_t sensorError[6];
    int32_t markerCounter[6]; // -1: flagged
    int32_t moduleAddress;
    int32_t pt100CalibChannel; // -1: none pending
    int32_t gaugeCalibChannel; // -1: none pending
    cm_calib_state_t calib;
    cm_module_info_t module;
    uint8_t rest[20];
};

// Settings 117 to 130 belong to the module firmware: kept opaque at their offsets.
struct cm_config_t {
    uint8_t format;     // id 115
    uint8_t configured; // id 116
    uint8_t setting117;
    float setting118;
    float setting119;
    float setting120;
    float setting121;
    float setting122;
    float setting123;
    float setting124;
    float setting125;
    float setting126;
    float setting127;
    float setting128;
    int32_t setting129;
    int32_t busBaudrate; // id 130
};

struct cm_datas_t {
    float values[7];
};
#pragma pack(pop)

static_assert(sizeof(cm_calib_state_t) == 6, "cm_calib_state_t is 6 bytes");
static_assert(sizeof(cm_module_info_t) == 5, "module information is 5 bytes");
static_assert(offsetof(cm_proc_values_t, lastAnswerTime) == 6, "last answer time at 6");
static_assert(offsetof(cm_proc_values_t, sensorError) == 10, "sensor flags at 10");
static_assert(offsetof(cm_proc_values_t, markerCounter) == 16, "marker counters at 16");
static_assert(offsetof(cm_proc_values_t, moduleAddress) == 40, "module address at 40");
static_assert(offsetof(cm_proc_values_t, calib) == 52, "calibration state at 52");
static_assert(offsetof(cm_proc_values_t, module) == 58, "module information at 58");
static_assert(sizeof(cm_proc_values_t) == 83, "cm_proc_values_t is 83 bytes");
static_assert(sizeof(cm_config_t) == 55, "cm_config_t is 55 bytes");
static_assert(offsetof(cm_config_t, setting118) == 3, "id 118 at offset 3");
static_assert(offsetof(cm_config_t, setting119) == 7, "id 119 at offset 7");
static_assert(offsetof(cm_config_t, setting121) == 15, "id 121 at offset 15");
static_assert(offsetof(cm_config_t, setting123) == 23, "id 123 at offset 23");
static_assert(offsetof(cm_config_t, setting126) == 35, "id 126 at offset 35");
static_assert(offsetof(cm_config_t, setting128) == 43, "id 128 at offset 43");
static_assert(offsetof(cm_config_t, setting129) == 47, "id 129 at offset 47");
static_assert(offsetof(cm_config_t, busBaudrate) == 51, "id 130 at offset 51");
static_assert(sizeof(cm_datas_t) == 28, "cm_datas_t is 28 bytes");

class MesV2Modul {
public:
    enum {
        CMD_CONNECT = 12, CMD_DATA = 13, CMD_READ_CONFIG = 14, CMD_WRITE_CONFIG = 15,
        CMD_REBOOT = 16, CMD_FIRMWARE = 18, CMD_CALIB_GAUGE = 19, CMD_CALIB_PT100 = 22,
        CMD_ACK = 25, CMD_CALIB_STATE = 27,
        ANSWER_INFO = 11,
    };
    // Results of CM_sendTo, CM_parseRX_Datas and CM_sendToTOV. Unlike V1's, success is 0.
    enum {
        RES_OK = 0,
        RES_REJECTED = -1,      // CM_parseRX_Datas: the frame was not taken, records unchanged
        RES_BAD_ANSWER = -2,    // CM_sendTo: an answer of the expected length that was rejected
        RES_BAD_LENGTH = -4,    // CM_sendTo: no answer, or not of the expected length
        RES_NOT_CONNECTED = -4, // CM_sendToTOV: the module was not connected at the start
    };
    enum { HEADER_LENGTH = 6, MAX_FRAME = 64 };
    static const int FLAG_AFTER = 64;
    static const int WATCHDOG_SECONDS = 180;
    static constexpr float MARKER_WEIGHT = -999.0f;
    static constexpr float MARKER_SENSOR = 999.0f;

    explicit MesV2Modul(CComRS485* link);
    virtual ~MesV2Modul();
    MesV2Modul(const MesV2Modul&) = delete;
    MesV2Modul& operator=(const MesV2Modul&) = delete;

    void initMesV2Modul();
    void closeMesV2Modul();

    bool CMinit_Comm();
    // True when unit and module agree afterwards (nothing to exchange, or the exchange succeeded).
    bool CMcheckIfConfiged();
    // RES_OK (also for a command refused without sending), RES_BAD_LENGTH or RES_BAD_ANSWER.
    int CM_sendTo(unsigned char cmd);
    int CM_sendToTOV();
    // RES_OK when the answer frame is accepted and applied, else RES_REJECTED.
    int CM_parseRX_Datas(const unsigned char* frame, int len);
    int CMstart_FirmUpdate();
    void rebootMODULE();
    void sendCalibPT100(unsigned channel);
    void sendCalibJauge(unsigned channel);
    void CMdisconnect(unsigned char state);

    uint8_t isCMconnected() const { return m_proc.state; }
    uint8_t isCMconfigured();
    // The last answer time in seconds, not a count, despite its name.
    int CMcommCounter() const { return m_proc.lastAnswerTime; }
    uint8_t getCMcmdToSend() const { return m_proc.nextCommand; }
    void setCMcmdToSend(unsigned char cmd) { m_proc.nextCommand = cmd; }
    int lastCommandSent() const { return m_lastCommand; }

    float CM_getMesureValue(int i);
    uint8_t CM_sensorError(int i) const;

    static void cfg_initCM_Config(cm_config_t* p);
    static void cfg_initCM_ProcValue(cm_proc_values_t* p);
    void cfg_getCM_Config(cm_config_t* p);
    // lock: take the config lock (false when the caller already holds it).
    void cfg_setCM_Config(bool lock, const cm_config_t* p);
    void cfg_getCM_Data(cm_datas_t* p);
    void cfg_setCM_Data(const cm_datas_t* p);
    void cfg_getCM_SensorsCalibState(cm_calib_state_t* p);
    int cfg_getCM_SensorCalibState(int i);
    cm_proc_values_t procValues() const { return m_proc; }

    cmParamValue_t getDATA_struct(int id);
    bool setDATA_struct(int id, void* value);
    cmParamValue_t getCFG_struct(int id);
    bool setCFG_struct(int id, void* value);

    // Builds the request frame of cmd into frame (MAX_FRAME bytes): its length, or 0 when the
    // command is refused; *answerLength gets the expected answer length.
    int buildRequest(unsigned char cmd, unsigned char* frame, int* answerLength);

    bool lock_CMconfig();
    bool lock_CMdatas();
    void unlock_CMconfig();
    void unlock_CMdatas();

private:
    void markDisconnected(unsigned char state);
    void checkMarkers();

    std::timed_mutex m_configLock;
    std::timed_mutex m_dataLock;
    CComRS485* m_link;
    cm_proc_values_t m_proc;
    int m_lastCommand = 10;
    cm_config_t m_config;
    cm_datas_t m_datas;
};

#endif
