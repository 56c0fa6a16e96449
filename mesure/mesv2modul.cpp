#include "mesure/mesv2modul.h"

#include "mesure/ccomrs485.h"
#include "utils/systemops.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

const unsigned short kTries = 3;
const int kRefused = -1; // not a command of the protocol: nothing is sent

bool lockWithin2s(std::timed_mutex& mutex)
{
    return mutex.try_lock_until(std::chrono::system_clock::now() + std::chrono::seconds(2));
}

int answerLength(unsigned char cmd)
{
    switch (cmd) {
    case 12: return 11;
    case 13: return 34;
    case 14: return 61;
    case 15: case 16: case 17: case 18: case 19: case 20: case 21: case 22: return 7;
    case 25: case 26: case 28: return 0;
    case 27: return 12;
    default: return kRefused;
    }
}

uint16_t le16(const unsigned char* p)
{
    return static_cast<uint16_t>(p[0] | (p[1] << 8));
}

void putLe16(unsigned char* p, unsigned value)
{
    p[0] = static_cast<unsigned char>(value & 0xFF);
    p[1] = static_cast<unsigned char>((value >> 8) & 0xFF);
}

} // namespace

MesV2Modul::MesV2Modul(CComRS485* link)
    : m_link(link)
{
    puts("[MesV2Modul] Started");
    m_lastCommand = 10;
    initMesV2Modul();
}

MesV2Modul::~MesV2Modul() = default;

void MesV2Modul::initMesV2Modul()
{
    memset(&m_datas, 0, sizeof m_datas);
    cfg_initCM_ProcValue(&m_proc);
    cfg_initCM_Config(&m_config);
    puts("[MesV2Modul] initMesV2Modul OK");
}

void MesV2Modul::closeMesV2Modul()
{
    puts("[MesV2Modul] Closed");
}

bool MesV2Modul::lock_CMconfig()
{
    return lockWithin2s(m_configLock);
}

bool MesV2Modul::lock_CMdatas()
{
    return lockWithin2s(m_dataLock);
}

void MesV2Modul::unlock_CMconfig()
{
    m_configLock.unlock();
}

void MesV2Modul::unlock_CMdatas()
{
    m_dataLock.unlock();
}

void MesV2Modul::cfg_initCM_Config(cm_config_t* p)
{
    if (p == nullptr)
        return;
    memset(p, 0, sizeof *p);
    p->format = 1;
    p->setting118 = 20.0f;
    p->setting119 = 2.0f;
    p->setting121 = 30.0f;
    p->setting129 = 2400;
    p->busBaudrate = 9600;
}

void MesV2Modul::cfg_initCM_ProcValue(cm_proc_values_t* p)
{
    if (p == nullptr)
        return;
    memset(p, 0, sizeof *p);
    p->nextCommand = CMD_CONNECT;
    p->moduleAddress = 1;
    p->pt100CalibChannel = -1;
    p->gaugeCalibChannel = -1;
}

void MesV2Modul::markDisconnected(unsigned char state)
{
    m_proc.state = state;
    m_proc.lastAnswerTime = 0;
    m_proc.nextCommand = CMD_CONNECT;
    m_lastCommand = CMD_CONNECT;
}

void MesV2Modul::CMdisconnect(unsigned char state)
{
    markDisconnected(state);
}

bool MesV2Modul::CMinit_Comm()
{
    if (m_proc.state == 1)
        return false;
    return CM_sendTo(CMD_CONNECT) == RES_OK;
}

uint8_t MesV2Modul::isCMconfigured()
{
    uint8_t configured = 0;
    if (lock_CMconfig()) {
        configured = m_config.configured;
        unlock_CMconfig();
    }
    return configured;
}

bool MesV2Modul::CMcheckIfConfiged()
{
    const uint8_t unitConfigured = isCMconfigured();
    const uint8_t moduleConfigured = m_proc.module.configured;
    if (unitConfigured == 1 && moduleConfigured == 0) {
        if (CM_sendTo(CMD_WRITE_CONFIG) != RES_OK)
            return false;
        puts(" +++ CMv2_Send Config from TOV to new Modul OK");
    } else if (unitConfigured == 0 && moduleConfigured == 1) {
        if (CM_sendTo(CMD_READ_CONFIG) != RES_OK)
            return false;
        puts(" +++ CMv2_Receive Config from Modul for new TOV OK");
    }
    return true;
}

int MesV2Modul::buildRequest(unsigned char cmd, unsigned char* frame, int* expected)
{
    const int answer = answerLength(cmd);
    if (answer == kRefused || frame == nullptr)
        return 0;
    unsigned char* payload = frame + HEADER_LENGTH;
    unsigned n = 1;
    if (cmd == CMD_WRITE_CONFIG) {
        cm_config_t copy;
        cfg_initCM_Config(&copy);
        cfg_getCM_Config(&copy);
        if (copy.configured == 0)
            copy.configured = 1;
        memcpy(payload, &copy, sizeof copy);
        n = sizeof copy;
    } else if (cmd == CMD_CALIB_GAUGE) {
        if (static_cast<uint32_t>(m_proc.gaugeCalibChannel) > 2)
            return 0;
        payload[0] = static_cast<unsigned char>(m_proc.gaugeCalibChannel);
    } else if (cmd == CMD_CALIB_PT100) {
        if (static_cast<uint32_t>(m_proc.pt100CalibChannel) > 3)
            return 0;
        payload[0] = static_cast<unsigned char>(m_proc.pt100CalibChannel);
    } else {
        payload[0] = cmd;
    }
    frame[0] = static_cast<unsigned char>(m_proc.moduleAddress);
    putLe16(frame + 1, n);
    frame[3] = cmd;
    putLe16(frame + 4, CComRS485::calculateCRC(payload, n));
    // One zero byte more than the frame, on purpose: modules in the field expect it.
    payload[n] = 0;
    if (expected != nullptr)
        *expected = answer;
    return static_cast<int>(HEADER_LENGTH + n + 1);
}

int MesV2Modul::CM_sendTo(unsigned char cmd)
{
    unsigned char request[MAX_FRAME] = {};
    int expected = 0;
    const int length = buildRequest(cmd, request, &expected);
    if (length == 0)
        return RES_OK;
    int baud = 9600;
    if (lock_CMconfig()) {
        baud = m_config.busBaudrate;
        unlock_CMconfig();
    }
    unsigned char answer[MAX_FRAME + 1] = {};
    const int count = m_link == nullptr
        ? -1
        : m_link->sendWaitForRespAuto(baud, reinterpret_cast<char*>(request),
                                      static_cast<unsigned>(length),
                                      reinterpret_cast<char*>(answer),
                                      static_cast<unsigned>(expected + 1), kTries);
    if (count != expected)
        return RES_BAD_LENGTH;
    if (CM_parseRX_Datas(answer, count) != RES_OK)
        return RES_BAD_ANSWER;
    return RES_OK;
}

int MesV2Modul::CM_parseRX_Datas(const unsigned char* frame, int len)
{
    if (frame == nullptr || len < HEADER_LENGTH)
        return RES_REJECTED;
    if (frame[0] != static_cast<unsigned char>(m_proc.moduleAddress))
        return RES_REJECTED;
    const unsigned n = le16(frame + 1);
    if (static_cast<long>(n) + HEADER_LENGTH != len)
        return RES_REJECTED;
    const unsigned char* payload = frame + HEADER_LENGTH;
    if (le16(frame + 4) != CComRS485::calculateCRC(payload, n))
        return RES_REJECTED;

    switch (frame[3]) {
    case ANSWER_INFO:
        if (n != sizeof(cm_module_info_t))
            return RES_REJECTED;
        memcpy(&m_proc.module, payload, sizeof(cm_module_info_t));
        m_proc.state = 1;
        m_proc.nextCommand = CMD_DATA;
        break;
    case CMD_DATA:
        if (n != sizeof(cm_datas_t))
            return RES_REJECTED;
        if (lock_CMdatas()) {
            memcpy(&m_datas, payload, sizeof(cm_datas_t));
            unlock_CMdatas();
        }
        break;
    case CMD_READ_CONFIG:
        if (n != sizeof(cm_config_t))
            return RES_REJECTED;
        cfg_setCM_Config(true, reinterpret_cast<const cm_config_t*>(payload));
        m_proc.nextCommand = CMD_DATA;
        break;
    case CMD_FIRMWARE:
        m_proc.nextCommand = CMD_FIRMWARE;
        break;
    case CMD_ACK: {
        const uint8_t previous = m_proc.nextCommand;
        if (previous == CMD_CALIB_PT100)
            m_proc.pt100CalibChannel = -1;
        else if (previous == CMD_CALIB_GAUGE)
            m_proc.gaugeCalibChannel = -1;
        m_proc.nextCommand = (previous == 19 || previous == 20 || previous == 22)
            ? CMD_CALIB_STATE : CMD_DATA;
        break;
    }
    case CMD_CALIB_STATE:
        if (n != sizeof(cm_calib_state_t))
            return RES_REJECTED;
        memcpy(&m_proc.calib, payload, sizeof(cm_calib_state_t));
        if (m_proc.calib.gaugeChannel == -1 && m_proc.calib.state1 == 0
            && m_proc.calib.pt100[0] + m_proc.calib.pt100[1] + m_proc.calib.pt100[2] == 0)
            m_proc.nextCommand = CMD_READ_CONFIG;
        break;
    default:
        break;
    }
    m_proc.lastAnswerTime = _getTimeStampInSecs();
    return RES_OK;
}

void MesV2Modul::checkMarkers()
{
    cm_datas_t datas;
    if (!lock_CMdatas())
        return;
    datas = m_datas;
    unlock_CMdatas();
    for (int i = 0; i < 5; ++i) {
        const float marker = i == 0 ? MARKER_WEIGHT : MARKER_SENSOR;
        int32_t& counter = m_proc.markerCounter[i];
        if (datas.values[i] != marker) {
            counter = 0;
            m_proc.sensorError[i] = 0;
            continue;
        }
        if (counter == -1)
            continue;
        // Checked before counting: the 66th marker in a row flags the sensor.
        if (counter > FLAG_AFTER) {
            counter = -1;
            m_proc.sensorError[i] = 1;
        } else {
            ++counter;
        }
    }
}

int MesV2Modul::CM_sendToTOV()
{
    const uint8_t stateAtEntry = m_proc.state;
    int result = RES_NOT_CONNECTED;
    if (stateAtEntry == 1) {
        const unsigned char cmd = m_proc.nextCommand;
        result = CM_sendTo(cmd);
        m_lastCommand = cmd;
        if (result == RES_OK) {
            if (cmd == CMD_DATA) {
                checkMarkers();
            } else if (cmd == 16 || cmd == 17 || cmd == 28) {
                markDisconnected(2);
                sleep(4);
            } else if (cmd == CMD_FIRMWARE) {
                markDisconnected(0);
                return result;
            }
        }
    }
    if (m_proc.lastAnswerTime != 0
        && _getTimeStampInSecs() - m_proc.lastAnswerTime > WATCHDOG_SECONDS) {
        markDisconnected(2);
        puts("MESUREv2 Deconnecte via WATCHDOG, erreur RS485");
    }
    if (m_proc.state == 2 && CMinit_Comm()) {
        m_proc.lastAnswerTime = 0;
        puts("MESUREv2 Reconnecte via WATCHDOG, OK");
    }
    return stateAtEntry == 1 ? result : RES_NOT_CONNECTED;
}

int MesV2Modul::CMstart_FirmUpdate()
{
    if (m_proc.state == 0)
        return 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (CM_sendTo(CMD_FIRMWARE) == RES_OK) {
            markDisconnected(0);
            return 1;
        }
        usleep(10000);
    }
    return 0;
}

void MesV2Modul::rebootMODULE()
{
    if (m_proc.state == 1)
        m_proc.nextCommand = CMD_REBOOT;
}

void MesV2Modul::sendCalibPT100(unsigned channel)
{
    m_proc.nextCommand = CMD_CALIB_PT100;
    m_proc.pt100CalibChannel = static_cast<int32_t>(channel);
    if (channel < 3)
        m_proc.calib.pt100[channel] = 1;
}

void MesV2Modul::sendCalibJauge(unsigned channel)
{
    m_proc.gaugeCalibChannel = static_cast<int32_t>(channel);
    m_proc.calib.gaugeChannel = static_cast<int8_t>(channel);
    m_proc.nextCommand = CMD_CALIB_GAUGE;
}

float MesV2Modul::CM_getMesureValue(int i)
{
    if (i < 0 || !lock_CMdatas())
        return 0.0f;
    const float value = m_datas.values[i > 5 ? 6 : i];
    unlock_CMdatas();
    return value;
}

uint8_t MesV2Modul::CM_sensorError(int i) const
{
    if (i < 0 || i >= 6)
        return 0;
    return m_proc.sensorError[i];
}

void MesV2Modul::cfg_getCM_Config(cm_config_t* p)
{
    if (p == nullptr || !lock_CMconfig())
        return;
    *p = m_config;
    unlock_CMconfig();
}

void MesV2Modul::cfg_setCM_Config(bool lock, const cm_config_t* p)
{
    if (p == nullptr)
        return;
    if (lock && !lock_CMconfig())
        return;
    memcpy(&m_config, p, sizeof m_config);
    if (lock)
        unlock_CMconfig();
}

void MesV2Modul::cfg_getCM_Data(cm_datas_t* p)
{
    if (p == nullptr || !lock_CMdatas())
        return;
    *p = m_datas;
    unlock_CMdatas();
}

void MesV2Modul::cfg_setCM_Data(const cm_datas_t* p)
{
    if (p == nullptr || !lock_CMdatas())
        return;
    m_datas = *p;
    unlock_CMdatas();
}

void MesV2Modul::cfg_getCM_SensorsCalibState(cm_calib_state_t* p)
{
    if (p == nullptr || !lock_CMconfig())
        return;
    *p = m_proc.calib;
    unlock_CMconfig();
}

int MesV2Modul::cfg_getCM_SensorCalibState(int i)
{
    switch (i) {
    case 0: return m_proc.calib.gaugeChannel;
    case 1: return m_proc.calib.state1;
    case 2: case 3: case 4:
        return m_proc.calib.pt100[0] + m_proc.calib.pt100[1] + m_proc.calib.pt100[2];
    default: return -2;
    }
}

cmParamValue_t MesV2Modul::getDATA_struct(int id)
{
    cmParamValue_t record;
    if (!lock_CMdatas())
        return record;
    if (id == 0)
        record.iValue = m_proc.state;
    else if (id >= 1 && id <= 7)
        record.value.f = m_datas.values[id - 1];
    unlock_CMdatas();
    return record;
}

bool MesV2Modul::setDATA_struct(int id, void* value)
{
    if (value == nullptr || !lock_CMdatas())
        return true;
    if (id == 0) {
        m_proc.state = static_cast<uint8_t>(*static_cast<int*>(value));
    } else if (id >= 1 && id <= 6) {
        m_datas.values[id - 1] = *static_cast<float*>(value);
    } else if (id == 7) {
        const float v = *static_cast<float*>(value);
        if (m_datas.values[6] != v)
            m_datas.values[6] = v;
    }
    unlock_CMdatas();
    return true;
}

namespace {

// The float settings 118 to 128 lie one after the other from offset 3.
unsigned char* floatSetting(cm_config_t& config, int id)
{
    return reinterpret_cast<unsigned char*>(&config) + offsetof(cm_config_t, setting118)
        + sizeof(float) * static_cast<size_t>(id - 118);
}

} // namespace

cmParamValue_t MesV2Modul::getCFG_struct(int id)
{
    cmParamValue_t record;
    if (!lock_CMconfig())
        return record;
    switch (id) {
    case 114:
        memcpy(record.value.bytes, &m_proc.module.version, sizeof record.value.bytes);
        break;
    case 115: record.iValue2 = m_config.format; break;
    case 116: record.iValue = m_config.configured; break;
    case 117: record.iValue = m_config.setting117; break;
    case 129: record.iValue2 = m_config.setting129; break;
    case 130: record.iValue2 = m_config.busBaudrate; break;
    default:
        if (id >= 118 && id <= 128)
            memcpy(&record.value.f, floatSetting(m_config, id), sizeof(float));
        break;
    }
    unlock_CMconfig();
    return record;
}

bool MesV2Modul::setCFG_struct(int id, void* value)
{
    if (value == nullptr || !lock_CMconfig())
        return true;
    auto setByte = [](uint8_t& field, void* v) {
        const uint8_t next = static_cast<uint8_t>(*static_cast<int*>(v));
        if (field != next)
            field = next;
    };
    switch (id) {
    case 115: setByte(m_config.format, value); break;
    case 116: setByte(m_config.configured, value); break;
    case 117: setByte(m_config.setting117, value); break;
    case 129: {
        int32_t next = *static_cast<int*>(value);
        if (m_config.setting129 != next)
            m_config.setting129 = next;
        break;
    }
    case 130: {
        int32_t next = *static_cast<int*>(value);
        if (m_config.busBaudrate != next)
            m_config.busBaudrate = next;
        break;
    }
    default:
        if (id >= 118 && id <= 128) {
            float current, next;
            memcpy(&current, floatSetting(m_config, id), sizeof current);
            memcpy(&next, value, sizeof next);
            if (current != next)
                memcpy(floatSetting(m_config, id), &next, sizeof next);
        }
        break;
    }
    unlock_CMconfig();
    return true;
}
