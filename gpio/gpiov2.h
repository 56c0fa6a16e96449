// The board's relays and logic inputs: ten sysfs GPIO pins created together and addressed by their
// kernel GPIO numbers. Destroying the map releases every pin it configured.
#ifndef TOV_GPIO_GPIOV2_H
#define TOV_GPIO_GPIOV2_H

#include <cstdint>
#include <vector>

class gpioTOVv2;

// Five relay outputs (138, 135, 136, 230, 232) then five inputs (200, 201, 202, 41, 42).
extern const uint16_t CFG_GPIO_PIN[10];

class gpioV2 {
public:
    gpioV2();
    virtual ~gpioV2();
    gpioV2(const gpioV2&) = delete;
    gpioV2& operator=(const gpioV2&) = delete;

    // Creates the ten pins of CFG_GPIO_PIN; pins that fail stay in the map, unconfigured.
    void init();
    // 1 written, 0 failed or no such pin.
    int setGPIO_State(int pin, int state);
    // 0 or 1, -1 on failure or no such pin.
    int getGPIO_State(int pin);

private:
    std::vector<gpioTOVv2*> m_pins;
};

#endif
