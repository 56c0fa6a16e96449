// Millisecond stopwatch and countdown on the wall clock. Started without a duration it is a
// stopwatch, with one a countdown; elapsed() answers in the matching sense.
#ifndef TOV_MESURE_RWKTIMER_H
#define TOV_MESURE_RWKTIMER_H

class rwkTimer {
public:
    rwkTimer() = default;
    virtual ~rwkTimer() = default;

    // Low 20 bits of the seconds times 1000 plus the milliseconds: wraps every 1,048,576 s.
    static int getMilliCount();
    // Milliseconds since start, corrected once for a wrap of the count.
    static int getMilliSpan(int start);

    void start(int ms = 0);
    void stop();
    void restart();
    // Countdown: remaining ms, 0 (and stopped) once over. Stopwatch: ms since start, starting it
    // on first use.
    int elapsed();
    // Busy wait without sleeping: it keeps a core busy for the whole wait.
    bool waitTimeout(int ms);
    virtual bool isStarted();

private:
    int m_startCount = 0;
    int m_deadline = 0;
    int m_lastValue = 0;
    int m_duration = 0;
    bool m_started = false;
};

#endif
