#include "gpio/gpiotovv2.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

const char* const kGpioDir = "/sys/class/gpio/";

std::string pinDir(int pin)
{
    return kGpioDir + std::string("gpio") + std::to_string(pin);
}

// A sysfs attribute takes one write as one value: no line end is needed, and the truncation the
// stream asks for on opening is accepted and ignored.
template <typename T>
bool writeWord(const std::string& path, const T& word)
{
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    if (!out.is_open())
        return false;
    out << word;
    out.close();
    return true;
}

bool readWord(const std::string& path, std::string& word)
{
    std::ifstream in(path);
    if (!in.is_open())
        return false;
    in >> word;
    in.close();
    return true;
}

} // namespace

gpioTOVv2::gpioTOVv2(int pin, int direction)
    : m_pinNum(pin), m_direction(direction), m_configured(false), m_lastState(-1)
{
    if (m_pinNum < 1)
        return;
    if (export_gpio() != 1)
        return;
    if (set_direction_gpio() != 0)
        m_configured = true;
}

gpioTOVv2::~gpioTOVv2()
{
    unexport_gpio();
}

int gpioTOVv2::get_pinNum() const
{
    return m_pinNum;
}

bool gpioTOVv2::is_pinConfigured() const
{
    return m_configured;
}

int gpioTOVv2::get_pinLastState() const
{
    return m_lastState;
}

int gpioTOVv2::export_gpio()
{
    // A pin left exported by an earlier run is taken over as it is.
    if (is_pinReady())
        return 1;
    if (!writeWord(std::string(kGpioDir) + "export", m_pinNum)) {
        printf(" OPERATION FAILED: Unable to export GPIO_%d\n", m_pinNum);
        return 0;
    }
    return 1;
}

int gpioTOVv2::unexport_gpio()
{
    if (!m_configured)
        return 0;
    if (!writeWord(std::string(kGpioDir) + "unexport", m_pinNum)) {
        printf(" OPERATION FAILED: Unable to unexport GPIO_%d\n", m_pinNum);
        return 0;
    }
    return 1;
}

int gpioTOVv2::is_pinReady()
{
    struct stat st;
    const std::string dir = pinDir(m_pinNum);
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
}

int gpioTOVv2::get_direction_gpio()
{
    std::string word;
    if (!readWord(pinDir(m_pinNum) + "/direction", word)) {
        // The value message is reused for the direction on purpose: logs are matched on it.
        printf(" OPERATION FAILED: Unable to get value of GPIO_%d\n", m_pinNum);
        return -1;
    }
    return word == "out" ? 0 : 1;
}

int gpioTOVv2::set_direction_gpio()
{
    if (get_direction_gpio() == m_direction)
        return 1;
    const char* word = m_direction == 1 ? "in" : "out";
    if (!writeWord(pinDir(m_pinNum) + "/direction", word)) {
        m_configured = false;
        printf(" OPERATION FAILED: Unable to set direction of GPIO_%d\n", m_pinNum);
        return 0;
    }
    m_configured = true;
    return 1;
}

int gpioTOVv2::setval_gpio(int value)
{
    if (!m_configured)
        return 0;
    if (value == m_lastState)
        return 1;
    if (!writeWord(pinDir(m_pinNum) + "/value", value)) {
        printf(" OPERATION FAILED: Unable to set value of GPIO_%d\n", m_pinNum);
        return 0;
    }
    m_lastState = value;
    return 1;
}

int gpioTOVv2::getval_gpio()
{
    if (!m_configured)
        return -1;
    std::string word;
    if (!readWord(pinDir(m_pinNum) + "/value", word)) {
        printf(" OPERATION FAILED: Unable to get value of GPIO_%d\n", m_pinNum);
        return -1;
    }
    const long raw = strtol(word.c_str(), nullptr, 10);
    int value;
    if (m_direction == 0)
        value = static_cast<int>(raw);
    else
        // Inputs are active low on the board, so a level of 0 reads as 1; any level other than
        // 0 or 1 reads as 0 (inactive), kept on purpose since callers only test for 1.
        value = (raw == 0 || raw == 1) ? static_cast<int>(1 - raw) : 0;
    m_lastState = value;
    return value;
}
