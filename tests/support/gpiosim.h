// The simulated unit's GPIO emulator seen from a test inside the unit: input levels to set, output
// levels and the journal to read, and a count of the requests made to /sys/class/gpio.
#ifndef TOV_TESTS_GPIOSIM_H
#define TOV_TESTS_GPIOSIM_H

#include "testfiles.h"

#include <cstdlib>
#include <string>

namespace tovtest {

inline std::string gpioJournal()
{
    return readText("/run/tovsim/gpio.journal");
}

// The journal lines written since `before` (an earlier gpioJournal()).
inline std::string gpioJournalSince(const std::string& before)
{
    const std::string now = gpioJournal();
    return now.compare(0, before.size(), before) == 0 ? now.substr(before.size()) : now;
}

// Electrical level of an input as its value file will show it (0 reads as 1 on the bench).
inline void setGpioLevel(int pin, long level)
{
    writeText("/run/tovsim/gpio/pins/" + std::to_string(pin), std::to_string(level));
}

// The level the pin's value file shows: an output's driven level, an input's electrical level.
inline long gpioLevel(int pin)
{
    return std::strtol(readText("/run/tovsim/gpio/pins/" + std::to_string(pin)).c_str(), nullptr, 10);
}

// "PIN DIRECTION LEVEL[ exported]" per pin, in board order.
inline std::string gpioState()
{
    return readText("/run/tovsim/gpio/state");
}

inline unsigned long gpioAccesses()
{
    return std::strtoul(readText("/run/tovsim/gpio/accesses").c_str(), nullptr, 10);
}

} // namespace tovtest

#endif
