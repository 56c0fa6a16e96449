#include "app/touchpanel.h"

#include <QSocketNotifier>
#include <qpa/qwindowsysteminterface.h>

#include <tslib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

TouchPanel::TouchPanel(QObject* parent) : QObject(parent)
{
    const char* device = std::getenv("TSLIB_TSDEVICE");
    m_device = ts_setup(device, 1);
    if (!m_device) {
        std::printf("[TouchPanel] no touch panel at %s (%s): the bench runs without touch\n",
                    device ? device : "(TSLIB_TSDEVICE unset)", std::strerror(errno));
        std::fflush(stdout);
        return;
    }
    m_notifier = new QSocketNotifier(ts_fd(m_device), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &TouchPanel::readSamples);
}

TouchPanel::~TouchPanel()
{
    if (m_device)
        ts_close(m_device);
}

void TouchPanel::readSamples()
{
    // One sample per call: tslib's evdev module drops the samples it has already read when the
    // panel runs dry in the middle of a longer request (the read ends in EAGAIN), so a request for
    // more than one loses every touch that has fewer samples pending than asked for.
    ts_sample sample;
    int count;
    while ((count = ts_read(m_device, &sample, 1)) > 0)
        deliver(QPoint(sample.x, sample.y), sample.pressure > 0);
    if (count < 0 && errno != EAGAIN) {
        std::printf("[TouchPanel] the touch panel stopped answering (%s): the bench runs without touch\n",
                    std::strerror(errno));
        std::fflush(stdout);
        m_notifier->setEnabled(false);
    }
}

void TouchPanel::deliver(const QPoint& position, bool pressed)
{
    if (!pressed) {
        // A release carries no trustworthy position (tslib gives 0,0 or a filtered stray): the
        // button comes up where it went down or last moved to.
        if (m_pressed) {
            QWindowSystemInterface::handleMouseEvent(nullptr, m_position, m_position, Qt::NoButton,
                                                     Qt::LeftButton, QEvent::MouseButtonRelease);
        }
        m_pressed = false;
        return;
    }
    if (m_pressed && position == m_position)
        return;
    const QEvent::Type type = m_pressed ? QEvent::MouseMove : QEvent::MouseButtonPress;
    QWindowSystemInterface::handleMouseEvent(nullptr, position, position, Qt::LeftButton,
                                             m_pressed ? Qt::NoButton : Qt::LeftButton, type);
    m_position = position;
    m_pressed = true;
}
