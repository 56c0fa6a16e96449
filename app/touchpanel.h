#ifndef TOUCHPANEL_H
#define TOUCHPANEL_H

#include <QElapsedTimer>
#include <QObject>
#include <QPoint>

struct tsdev;
class QSocketNotifier;

// The unit's resistive panel read through tslib (its device, filters and calibration come from the
// TSLIB_* settings of tov_env), turned into the left-button presses, moves and releases the
// widgets take. Debian's Qt 5 is built without tslib, so the bench reads the panel itself.
class TouchPanel : public QObject
{
public:
    explicit TouchPanel(QObject* parent = nullptr);
    ~TouchPanel() override;
    TouchPanel(const TouchPanel&) = delete;
    TouchPanel& operator=(const TouchPanel&) = delete;

    // False when tslib found no panel, or once the panel went away; the bench then runs without
    // touch.
    bool isOpen() const { return m_device != nullptr; }

private:
    void readSamples();
    const char* endOfPanel(int count, int error);
    void close(const char* why);
    void deliver(const QPoint& position, bool pressed);

    tsdev* m_device = nullptr;
    QSocketNotifier* m_notifier = nullptr;
    QPoint m_position;
    bool m_pressed = false;
    // Wake-ups that gave no sample, and since when: a panel that went away may stay readable.
    int m_empty = 0;
    QElapsedTimer m_emptySince;
};

#endif // TOUCHPANEL_H
