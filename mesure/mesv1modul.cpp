#include "mesure/mesv1modul.h"

#include "mesure/ccomrs485.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const int kBaud = 2400;
const unsigned short kTries = 3;
const char kPoll[MesV1Modul::POLL_LENGTH] = {0x01, 0x02, 0x39, 0x0D, 0x00};
const int kFieldOffset[MesV1Modul::FIELD_COUNT] = {2, 8, 14, 20, 26};

bool lockWithin2s(std::timed_mutex& mutex)
{
    return mutex.try_lock_until(std::chrono::system_clock::now() + std::chrono::seconds(2));
}

// The ASCII number of a received field, at most 5 characters whatever the buffer holds.
int fieldNumber(const char* field)
{
    char text[MesV1Modul::FIELD_SIZE] = {};
    if (field != nullptr)
        strncpy(text, field, MesV1Modul::FIELD_SIZE - 1);
    return atoi(text);
}

float temperature(int raw)
{
    return static_cast<float>(raw / 117.0 - 40.0);
}

} // namespace

MesV1Modul::MesV1Modul(CComRS485* link)
    : m_link(link)
{
    puts("[MesV1Modul] Started");
    initMesV1Modul();
}

MesV1Modul::~MesV1Modul() = default;

bool MesV1Modul::initMesV1Modul()
{
    memset(m_fields, 0, sizeof m_fields);
    cfg_initCMv1_Data(&m_datas);
    cfg_initCMv1_ProcValue(&m_proc);
    cfg_initCMv1_Config(&m_config);
    puts("[MesV1Modul] initMesV1Modul OK");
    return true;
}

void MesV1Modul::closeMesV1Modul()
{
    puts("[MesV1Modul] Closed");
}

bool MesV1Modul::lock_CMv1config()
{
    return lockWithin2s(m_configLock);
}

bool MesV1Modul::lock_CMv1datas()
{
    return lockWithin2s(m_dataLock);
}

void MesV1Modul::unlock_CMv1config()
{
    m_configLock.unlock();
}

void MesV1Modul::unlock_CMv1datas()
{
    m_dataLock.unlock();
}

void MesV1Modul::cfg_initCMv1_Config(cmV1_config_t* p)
{
    if (p == nullptr)
        return;
    memset(p, 0, sizeof *p);
    p->baudrate = kBaud;
    p->pressure20mA = 30.0f;
    p->pressure4mA = 0.0f;
}

void MesV1Modul::cfg_initCMv1_Data(cmV1_datas_t* p)
{
    if (p != nullptr)
        memset(p, 0, sizeof *p);
}

void MesV1Modul::cfg_initCMv1_ProcValue(cmV1_proc_values_t* p)
{
    if (p != nullptr)
        memset(p, 0, sizeof *p);
}

void MesV1Modul::cfg_getCMv1_Config(cmV1_config_t* p)
{
    if (p == nullptr || !lock_CMv1config())
        return;
    *p = m_config;
    unlock_CMv1config();
}

void MesV1Modul::cfg_setCMv1_Config(const cmV1_config_t* p)
{
    if (p == nullptr || !lock_CMv1config())
        return;
    m_config = *p;
    unlock_CMv1config();
}

void MesV1Modul::cfg_getCMv1_Data(cmV1_datas_t* p)
{
    if (p == nullptr || !lock_CMv1datas())
        return;
    *p = m_datas;
    unlock_CMv1datas();
}

void MesV1Modul::cfg_setCMv1_Data(const cmV1_datas_t* p)
{
    if (p == nullptr || !lock_CMv1datas())
        return;
    m_datas = *p;
    unlock_CMv1datas();
}

float MesV1Modul::CMv1_getMesureValue(int i)
{
    if (i < 0 || i >= FIELD_COUNT || !lock_CMv1datas())
        return 0.0f;
    const float value = m_datas.values[i];
    unlock_CMv1datas();
    return value;
}

uint8_t MesV1Modul::CMv1sensorError(int i)
{
    // The flags change with the values, under the data lock, while the interface thread reads.
    if (i < 0 || i >= FIELD_COUNT || !lock_CMv1datas())
        return 0;
    const uint8_t flag = m_proc.sensorError[i];
    unlock_CMv1datas();
    return flag;
}

void MesV1Modul::CMv1_startPressureCalib(bool start)
{
    m_proc.pressureCalib = start ? 1 : 0;
    m_proc.pressureCalibWork[0] = 0;
    m_proc.pressureCalibWork[1] = 0;
}

bool MesV1Modul::CMV1_initComm()
{
    char scratch[FIELD_COUNT][FIELD_SIZE];
    const int result = acquisition_carteV1(kBaud, scratch[0], scratch[1], scratch[2], scratch[3],
                                           scratch[4]);
    const bool found = result > 0;
    if (found)
        m_proc.state = 1;
    usleep(10000);
    return found;
}

int MesV1Modul::CMv1_decodeAnswer(const char* answer, int count, char* f1, char* f2, char* f3,
                                  char* f4, char* f5)
{
    if (count < 1 || answer == nullptr)
        return RES_NO_ANSWER;
    if (count != ANSWER_LENGTH)
        return RES_BAD_LENGTH;
    if (answer[0] == 0x01 && answer[1] == 0x02 && answer[2] == '9')
        return RES_ECHO;
    // A wrong header still hands its fields over: callers judge by the result.
    const int result = (answer[0] == 0x01 && answer[1] == 0x02) ? RES_OK : RES_BAD_HEADER;
    char* fields[FIELD_COUNT] = {f1, f2, f3, f4, f5};
    for (int i = 0; i < FIELD_COUNT; ++i) {
        if (fields[i] == nullptr)
            continue;
        memcpy(fields[i], answer + kFieldOffset[i], FIELD_SIZE - 1);
        fields[i][FIELD_SIZE - 1] = '\0';
    }
    return result;
}

int MesV1Modul::acquisition_carteV1(int baud, char* f1, char* f2, char* f3, char* f4, char* f5)
{
    char poll[POLL_LENGTH];
    char answer[ANSWER_LENGTH + 1] = {};
    memcpy(poll, kPoll, sizeof poll);
    const int count = m_link == nullptr
        ? -1
        : m_link->sendWaitForRespAuto(baud, poll, POLL_LENGTH, answer, ANSWER_LENGTH + 1, kTries);

    const int result = CMv1_decodeAnswer(answer, count, f1, f2, f3, f4, f5);
    // An echoed poll leaves the counter alone: the module was not heard.
    if (result == RES_NO_ANSWER)
        ++m_proc.commCounter;
    else if (result == RES_OK || result == RES_BAD_HEADER)
        m_proc.commCounter = 0;
    usleep(250);
    return result;
}

int MesV1Modul::CM1_sendTo()
{
    const int result = acquisition_carteV1(kBaud, m_fields[0], m_fields[1], m_fields[2],
                                           m_fields[3], m_fields[4]);
    if (result < 0) {
        if (m_proc.commCounter >= 65)
            m_proc.state = 2;
        return result;
    }
    CMv1_applyReadings(m_fields[0], m_fields[1], m_fields[2], m_fields[3], m_fields[4]);
    return result;
}

void MesV1Modul::countOrStore(int index, float value, bool inRange)
{
    int32_t& counter = m_proc.rangeCounter[index];
    if (!inRange) {
        ++counter;
        return;
    }
    if (counter == -1) {
        counter = 0;
        m_proc.sensorError[index] = 0;
    }
    m_datas.values[index] = value;
}

void MesV1Modul::CMv1_applyReadings(const char* f1, const char* f2, const char* f3, const char* f4,
                                    const char* f5)
{
    if (m_proc.state == 2) {
        m_proc.state = 1;
        m_proc.commCounter = 0;
    }
    m_proc.state = m_proc.state == 0 ? 1 : m_proc.state;

    float p20 = 0.0f, p4 = 0.0f;
    if (lock_CMv1config()) {
        p20 = m_config.pressure20mA;
        p4 = m_config.pressure4mA;
        unlock_CMv1config();
    }
    const int raw[FIELD_COUNT] = {fieldNumber(f1), fieldNumber(f2), fieldNumber(f3),
                                  fieldNumber(f4), fieldNumber(f5)};
    if (!lock_CMv1datas())
        return;
    for (int i = 1; i <= 3; ++i) {
        const float t = temperature(raw[i]);
        countOrStore(i, t, t >= -45.0f && t <= 95.0f);
    }
    m_datas.values[0] = static_cast<float>(raw[0]);
    const float pressure =
        static_cast<float>((raw[4] - 4000) * (p20 - p4) / 16000.0 + p4);
    countOrStore(4, pressure, raw[4] >= 3700 && raw[4] <= 22000);

    for (int i = 0; i < FIELD_COUNT; ++i) {
        if (m_proc.rangeCounter[i] > FLAG_AFTER) {
            m_datas.values[i] = FLAGGED_VALUE;
            m_proc.rangeCounter[i] = -1;
            m_proc.sensorError[i] = 1;
        }
    }
    unlock_CMv1datas();
}

cmParamValue_t MesV1Modul::getDATA_struct(int id)
{
    cmParamValue_t record;
    if (!lock_CMv1datas())
        return record;
    if (id == 0)
        record.iValue = m_proc.state;
    else if (id >= 1 && id <= 5)
        record.value.f = m_datas.values[id - 1];
    else if (id >= 6 && id <= 10)
        record.iValue = m_proc.sensorError[id - 6];
    unlock_CMv1datas();
    return record;
}

bool MesV1Modul::setDATA_struct(int id, void* value)
{
    if (value == nullptr || !lock_CMv1datas())
        return true;
    if (id == 0) {
        m_proc.state = static_cast<uint8_t>(*static_cast<int*>(value));
    } else if (id >= 1 && id <= 5) {
        const float v = *static_cast<float*>(value);
        if (m_datas.values[id - 1] != v)
            m_datas.values[id - 1] = v;
    } else if (id >= 6 && id <= 10) {
        m_proc.sensorError[id - 6] = static_cast<uint8_t>(*static_cast<int*>(value));
    }
    unlock_CMv1datas();
    return true;
}
