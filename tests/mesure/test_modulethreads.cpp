// The module drivers shared between the test thread, which polls, and the interface thread, which
// reads values and flags: every read sees a whole record, and a lock held elsewhere for longer
// than two seconds turns getters into zeros and setters into nothing.
#include "mesure/ccomrs485.h"
#include "mesure/mesv1modul.h"
#include "mesure/mesv2modul.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;
using Clock = std::chrono::steady_clock;

const float kT1 = static_cast<float>(7410 / 117.0 - 40.0);
const float kT2 = static_cast<float>(8000 / 117.0 - 40.0);

// A V2 answer with the driver's own CRC routine; framing itself is checked elsewhere.
Bytes answer(unsigned char cmd, const void* payload, unsigned n)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(payload);
    const unsigned short crc = CComRS485::calculateCRC(bytes, n);
    Bytes frame(6 + n);
    frame[0] = 1;
    frame[1] = static_cast<unsigned char>(n & 0xFF);
    frame[2] = static_cast<unsigned char>(n >> 8);
    frame[3] = cmd;
    frame[4] = static_cast<unsigned char>(crc & 0xFF);
    frame[5] = static_cast<unsigned char>(crc >> 8);
    memcpy(frame.data() + 6, bytes, n);
    return frame;
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

} // namespace

TEST(ModuleThreadsV1, ReaderSeesWholeValuesAndConfigurationsWhilePolling)
{
    testing::internal::CaptureStdout();
    MesV1Modul modul(nullptr);
    cmV1_config_t a, b;
    MesV1Modul::cfg_initCMv1_Config(&a);
    MesV1Modul::cfg_initCMv1_Config(&b);
    b.baudrate = 9600;
    b.pressure20mA = 60.0f;
    b.pressure4mA = 10.0f;

    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    int torn = 0;
    std::thread reader([&] {
        while (!done) {
            const float t = modul.CMv1_getMesureValue(1);
            if (t != 0.0f && t != kT1 && t != kT2)
                ++torn;
            cmV1_config_t c;
            modul.cfg_getCMv1_Config(&c);
            if (memcmp(&c, &a, sizeof c) != 0 && memcmp(&c, &b, sizeof c) != 0)
                ++torn;
            (void)modul.CMv1sensorError(3);
            (void)modul.getDATA_struct(7);
            ++reads;
        }
    });
    // Until the reader has had its share, however the machine schedules the two threads.
    for (int i = 0; i < 20000 || reads < 1000; ++i) {
        modul.CMv1_applyReadings("00500", i % 2 ? "07410" : "08000", "06500", "99999", "12000");
        modul.cfg_setCMv1_Config(i % 2 ? &a : &b);
    }
    done = true;
    reader.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(torn, 0);
    // The third temperature stayed out of range all along: flagged by the polling thread.
    EXPECT_EQ(modul.CMv1sensorError(3), 1);
}

TEST(ModuleThreadsV1, LockHeldElsewhereMakesGettersZeroAfterTwoSeconds)
{
    testing::internal::CaptureStdout();
    MesV1Modul modul(nullptr);
    modul.CMv1_applyReadings("00500", "07410", "06500", "08000", "12000");
    std::atomic<bool> held{false}, release{false};
    std::thread holder([&] {
        held = modul.lock_CMv1datas() && modul.lock_CMv1config();
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        modul.unlock_CMv1config();
        modul.unlock_CMv1datas();
    });
    while (!held)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));

    const Clock::time_point start = Clock::now();
    EXPECT_EQ(modul.CMv1_getMesureValue(0), 0.0f);
    EXPECT_GE(secondsSince(start), 1.9);
    float v = 1.0f;
    EXPECT_TRUE(modul.setDATA_struct(1, &v));
    cmV1_config_t c;
    memset(&c, 0x5A, sizeof c);
    modul.cfg_getCMv1_Config(&c);
    EXPECT_EQ(c.baudrate, 0x5A5A5A5Au); // left as it was
    release = true;
    holder.join();
    testing::internal::GetCapturedStdout();
    EXPECT_FLOAT_EQ(modul.CMv1_getMesureValue(0), 500.0f);
}

TEST(ModuleThreadsV2, ReaderSeesWholeRecordsWhileAnswersArrive)
{
    testing::internal::CaptureStdout();
    MesV2Modul modul(nullptr);
    cm_datas_t d1{}, d2{};
    for (int i = 0; i < 7; ++i) {
        d1.values[i] = 1.0f + i;
        d2.values[i] = -1.0f - i;
    }
    cm_config_t c1, c2;
    MesV2Modul::cfg_initCM_Config(&c1);
    MesV2Modul::cfg_initCM_Config(&c2);
    c2.configured = 1;
    c2.busBaudrate = 19200;
    const Bytes data1 = answer(13, &d1, sizeof d1), data2 = answer(13, &d2, sizeof d2);
    const Bytes cfg1 = answer(14, &c1, sizeof c1), cfg2 = answer(14, &c2, sizeof c2);

    std::atomic<bool> done{false};
    std::atomic<int> reads{0};
    int torn = 0;
    std::thread reader([&] {
        while (!done) {
            cm_datas_t d;
            modul.cfg_getCM_Data(&d);
            if (memcmp(&d, &d1, sizeof d) != 0 && memcmp(&d, &d2, sizeof d) != 0 && d.values[0] != 0.0f)
                ++torn;
            cm_config_t c;
            modul.cfg_getCM_Config(&c);
            if (memcmp(&c, &c1, sizeof c) != 0 && memcmp(&c, &c2, sizeof c) != 0)
                ++torn;
            (void)modul.CM_getMesureValue(2);
            (void)modul.getCFG_struct(130);
            ++reads;
        }
    });
    for (int i = 0; i < 20000 || reads < 1000; ++i) {
        const Bytes& d = i % 2 ? data1 : data2;
        const Bytes& c = i % 2 ? cfg1 : cfg2;
        EXPECT_EQ(modul.CM_parseRX_Datas(d.data(), static_cast<int>(d.size())), 0);
        EXPECT_EQ(modul.CM_parseRX_Datas(c.data(), static_cast<int>(c.size())), 0);
    }
    done = true;
    reader.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(torn, 0);
}

TEST(ModuleThreadsV2, LockHeldElsewhereLeavesRecordsAloneAfterTwoSeconds)
{
    testing::internal::CaptureStdout();
    MesV2Modul modul(nullptr);
    std::atomic<bool> held{false}, release{false};
    std::thread holder([&] {
        held = modul.lock_CMdatas() && modul.lock_CMconfig();
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        modul.unlock_CMconfig();
        modul.unlock_CMdatas();
    });
    while (!held)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));

    const Clock::time_point start = Clock::now();
    EXPECT_EQ(modul.CM_getMesureValue(0), 0.0f);
    EXPECT_GE(secondsSince(start), 1.9);
    int baud = 1200;
    EXPECT_TRUE(modul.setCFG_struct(130, &baud));
    release = true;
    holder.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(modul.getCFG_struct(130).iValue2, 9600); // the set during the hold changed nothing
}
