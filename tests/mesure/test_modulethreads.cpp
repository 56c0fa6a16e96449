// The module drivers' records, shared between the test thread, which polls, and the interface
// thread, which reads: while another thread holds a record's lock, reading it gives 0 after two
// seconds and the poll's own writing of it changes nothing.
#include "mesure/mesv1modul.h"
#include "mesure/mesv2modul.h"

#include "moduletest.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;

// One record of a driver: its lock, one value read from it, that value written as the poll does.
struct Access {
    const char* name;
    std::function<bool()> lock;
    std::function<void()> unlock;
    std::function<float()> read;
    std::function<void(float)> write;
};

void lockedOut(const Access& a)
{
    a.write(5.0f);
    std::atomic<bool> held{false}, release{false};
    std::thread holder([&] {
        held = a.lock();
        while (!release)
            std::this_thread::sleep_for(milliseconds(5));
        a.unlock();
    });
    while (!held)
        std::this_thread::sleep_for(milliseconds(5));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(a.read(), 0.0f) << a.name;
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(1900)) << a.name;
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds(10000)) << a.name; // not for ever
    a.write(7.0f);
    release = true;
    holder.join();
    EXPECT_EQ(a.read(), 5.0f) << a.name;
}

} // namespace

TEST(ModuleThreads, V1RecordsLockedElsewhere)
{
    MesV1Modul m(nullptr);
    const Access records[] = {
        {"data", [&] { return m.lock_CMv1datas(); }, [&] { m.unlock_CMv1datas(); },
         [&] { return m.CMv1_getMesureValue(0); },
         [&](float v) { m.CMv1_applyReadings(std::to_string(int(v)).c_str(), "07410", "07410", "07410", "12000"); }},
        {"configuration", [&] { return m.lock_CMv1config(); }, [&] { m.unlock_CMv1config(); },
         [&] { cmV1_config_t c{}; m.cfg_getCMv1_Config(&c); return c.pressure20mA; },
         [&](float v) { cmV1_config_t c{}; c.pressure20mA = v; m.cfg_setCMv1_Config(&c); }},
    };
    for (const Access& a : records)
        lockedOut(a);
}

TEST(ModuleThreads, V2RecordsLockedElsewhere)
{
    MesV2Modul m(nullptr);
    const auto answer = [&](unsigned char cmd, const void* record, size_t size) {
        const tovtest::Bytes frame = tovtest::v2Answer(cmd, tovtest::bytesOf(record, size));
        m.CM_parseRX_Datas(frame.data(), static_cast<int>(frame.size()));
    };
    const Access records[] = {
        {"data", [&] { return m.lock_CMdatas(); }, [&] { m.unlock_CMdatas(); },
         [&] { return m.CM_getMesureValue(0); },
         [&](float v) { const cm_datas_t d = {{v}}; answer(MesV2Modul::CMD_DATA, &d, sizeof d); }},
        {"configuration", [&] { return m.lock_CMconfig(); }, [&] { m.unlock_CMconfig(); },
         [&] { return m.getCFG_struct(121).value.f; },
         [&](float v) { cm_config_t c{}; c.setting121 = v; answer(MesV2Modul::CMD_READ_CONFIG, &c, sizeof c); }},
    };
    for (const Access& a : records)
        lockedOut(a);
}
