// The simulated unit's GPIO emulator seen from a test inside the unit: input levels to set, output
// levels and the journal to read, a count of the requests made to /sys/class/gpio, and a writer of
// its sysfs files that reports the kernel's answer.
#ifndef TOV_TESTS_GPIOSIM_H
#define TOV_TESTS_GPIOSIM_H

#include "testfiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace tovtest {

// Writes TEXT to /sys/class/gpio/NAME in one write(2), as a script or an earlier run would; gives 0
// when taken, else the errno of the open or the write (-1 for a short write).
inline int gpioWrite(const std::string& name, const std::string& text)
{
    const int fd = open(("/sys/class/gpio/" + name).c_str(), O_WRONLY | O_TRUNC);
    if (fd < 0)
        return errno;
    const ssize_t written = write(fd, text.data(), text.size());
    const int error = written < 0 ? errno : written == static_cast<ssize_t>(text.size()) ? 0 : -1;
    close(fd);
    return error;
}

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

// Requests made under /sys/class/gpio so far.
inline unsigned long gpioAccesses()
{
    return std::strtoul(readText("/run/tovsim/gpio/accesses").c_str(), nullptr, 10);
}

} // namespace tovtest

#endif
