#include "gpio/gpiov2.h"

#include "gpio/gpiotovv2.h"

#include <cstddef>

const uint16_t CFG_GPIO_PIN[10] = {138, 135, 136, 230, 232, 200, 201, 202, 41, 42};

namespace {

const int kOutputCount = 5;

} // namespace

gpioV2::gpioV2()
{
    m_pins.clear();
    init();
}

gpioV2::~gpioV2()
{
    for (gpioTOVv2* pin : m_pins)
        delete pin;
    m_pins.clear();
}

void gpioV2::init()
{
    const int count = static_cast<int>(sizeof(CFG_GPIO_PIN) / sizeof(CFG_GPIO_PIN[0]));
    for (int i = 0; i < count; ++i) {
        const int direction = i < kOutputCount ? 0 : 1;
        gpioTOVv2* pin = new gpioTOVv2(CFG_GPIO_PIN[i], direction);
        // Reading each input once primes its last state before the caller's first poll.
        if (direction == 1)
            pin->getval_gpio();
        m_pins.push_back(pin);
    }
}

// The whole map is walked and the last match wins; with each number once in the table that is the
// only match.
int gpioV2::setGPIO_State(int pin, int state)
{
    int result = 0;
    for (std::size_t i = 0; i < m_pins.size(); ++i) {
        if (m_pins.at(i)->get_pinNum() == pin)
            result = m_pins.at(i)->setval_gpio(state);
    }
    return result;
}

int gpioV2::getGPIO_State(int pin)
{
    int result = -1;
    for (std::size_t i = 0; i < m_pins.size(); ++i) {
        if (m_pins.at(i)->get_pinNum() == pin)
            result = m_pins.at(i)->getval_gpio();
    }
    return result;
}
