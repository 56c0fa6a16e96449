#include "app/touchpanel.h"

#include <QGuiApplication>
#include <QSocketNotifier>
#include <QWindow>
#include <qpa/qwindowsysteminterface.h>

#include <tslib.h>

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// A real panel gives a few hundred samples a second at most; this many wake-ups without one in a
// second is a descriptor that stays readable with nothing behind it.
constexpr int kEmptyWakeUps = 1000;
constexpr qint64 kEmptyWindowMs = 1000;

// Where tslib's linear filter reads the calibration when TSLIB_CALIBFILE is unset.
constexpr const char* kDefaultCalibration = "/etc/pointercal";

void sayCalibration()
{
    const char* path = std::getenv("TSLIB_CALIBFILE");
    if (!path || !*path)
        path = kDefaultCalibration;
    if (access(path, R_OK) == 0)
        return;
    std::printf("[TouchPanel] no calibration at %s (%s): the panel's raw coordinates are used\n", path,
                std::strerror(errno));
    std::fflush(stdout);
}

} // namespace

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
    sayCalibration();
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
    bool delivered = false;
    // Some filter chains fail without setting errno: a leftover EAGAIN must not pass for "dry".
    errno = 0;
    while ((count = ts_read(m_device, &sample, 1)) > 0) {
        deliver(QPoint(sample.x, sample.y), sample.pressure > 0);
        delivered = true;
        errno = 0;
    }
    const int error = errno;
    if (delivered || (count < 0 && error == EAGAIN)) {
        m_empty = 0;
        return;
    }
    if (const char* why = endOfPanel(count, error))
        close(why);
}

// Why the panel is to be taken as gone after a wake-up that gave nothing, or null while it may
// still be there (the filters may swallow what a wake-up read).
const char* TouchPanel::endOfPanel(int count, int error)
{
    pollfd fd{ts_fd(m_device), POLLIN, 0};
    if (poll(&fd, 1, 0) == 1 && (fd.revents & (POLLHUP | POLLERR | POLLNVAL)))
        return "hang-up";
    if (count < 0)
        return error ? std::strerror(error) : "read error";
    if (m_empty == 0 || m_emptySince.elapsed() > kEmptyWindowMs) {
        m_empty = 0;
        m_emptySince.start();
    }
    return ++m_empty >= kEmptyWakeUps ? "readable, but gives nothing" : nullptr;
}

void TouchPanel::close(const char* why)
{
    std::printf("[TouchPanel] the touch panel stopped answering (%s): the bench runs without touch\n", why);
    std::fflush(stdout);
    // Called from the notifier's own signal: it goes once that signal has returned.
    m_notifier->setEnabled(false);
    m_notifier->deleteLater();
    m_notifier = nullptr;
    ts_close(m_device);
    m_device = nullptr;
    // A finger that was down when the panel went must not leave its widget pressed, nor click it:
    // the button comes up off the window's edge, where the pressed widget takes it as a slide away.
    if (m_pressed) {
        QWindow* window = QGuiApplication::topLevelAt(m_position);
        const QPoint away(-1, -1);
        QWindowSystemInterface::handleMouseEvent(window, away, window ? window->mapToGlobal(away) : away,
                                                 Qt::NoButton, Qt::LeftButton, QEvent::MouseButtonRelease);
        m_pressed = false;
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
