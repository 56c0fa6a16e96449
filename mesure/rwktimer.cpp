#include "mesure/rwktimer.h"

#include <ctime>

namespace {
const int kCountWrap = 0x3E800000; // 1,048,576,000 ms: 2^20 seconds
}

int rwkTimer::getMilliCount()
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int>(now.tv_sec & 0xFFFFF) * 1000 + static_cast<int>(now.tv_nsec / 1000000);
}

int rwkTimer::getMilliSpan(int start)
{
    int span = getMilliCount() - start;
    if (span < 0)
        span += kCountWrap;
    return span;
}

void rwkTimer::start(int ms)
{
    m_duration = 0;
    m_startCount = getMilliCount();
    m_lastValue = 0;
    if (ms >= 1) {
        m_duration = ms;
        m_deadline = getMilliCount() + ms;
    } else {
        m_deadline = 0;
    }
    m_started = true;
}

void rwkTimer::stop()
{
    if (!m_started)
        return;
    m_startCount = 0;
    m_deadline = 0;
    m_duration = 0;
    m_lastValue = 0;
    m_started = false;
}

void rwkTimer::restart()
{
    const int duration = m_duration < 0 ? 0 : m_duration;
    stop();
    start(duration);
}

int rwkTimer::elapsed()
{
    int value;
    if (m_deadline != 0) {
        value = m_deadline - getMilliCount();
        if (value < 1) {
            stop();
            value = 0;
        }
    } else {
        if (!m_started)
            start();
        value = getMilliSpan(m_startCount);
    }
    m_lastValue = value;
    return value;
}

bool rwkTimer::waitTimeout(int ms)
{
    if (ms < 1)
        return false;
    stop();
    start(ms);
    while (elapsed() != 0) {
    }
    return true;
}

bool rwkTimer::isStarted()
{
    return m_started;
}
