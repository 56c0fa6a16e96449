// One digital pin of the unit through the kernel's sysfs GPIO interface (/sys/class/gpio).
// Building the object exports the pin and sets its direction; destroying it unexports the pin again,
// but only when it was configured. Every sysfs file is opened and closed per operation.
// Failures print one " OPERATION FAILED: ..." line on standard output and show in the result.
#ifndef TOV_GPIO_GPIOTOVV2_H
#define TOV_GPIO_GPIOTOVV2_H

class gpioTOVv2 {
public:
    // direction: 0 output, 1 input. A pin number below 1 leaves the object unconfigured.
    gpioTOVv2(int pin, int direction);
    virtual ~gpioTOVv2();
    gpioTOVv2(const gpioTOVv2&) = delete;
    gpioTOVv2& operator=(const gpioTOVv2&) = delete;

    virtual int get_pinNum() const;
    virtual bool is_pinConfigured() const;
    // Last value written or read; -1 until the first one.
    virtual int get_pinLastState() const;

    // 1 exported (or already exported), 0 failed.
    int export_gpio();
    // 1 done, 0 not configured or failed.
    int unexport_gpio();
    // 1 when /sys/class/gpio/gpioN is a directory.
    int is_pinReady();
    // 0 "out", 1 any other word, -1 unreadable.
    int get_direction_gpio();
    // 1 set (or already right), 0 failed.
    int set_direction_gpio();
    // 1 written (or already that value), 0 not configured or failed.
    int setval_gpio(int value);
    // Logical value (inputs inverted), -1 when not configured or unreadable.
    int getval_gpio();

private:
    int m_pinNum;
    int m_direction;
    bool m_configured;
    int m_lastState;
};

#endif
