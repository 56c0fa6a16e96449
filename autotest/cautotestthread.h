// The automatic factory test: every stage in a fixed order, one result line per finding, and the
// number of counted failures at the end. Talks to the window only through its two signals.
#ifndef TOV_AUTOTEST_CAUTOTESTTHREAD_H
#define TOV_AUTOTEST_CAUTOTESTTHREAD_H

#include <QString>
#include <QThread>

#include <atomic>
#include <string>

class CComRS485;
class gpioV2;
class rwkTimer;

class cAutoTestThread : public QThread {
    Q_OBJECT

public:
    explicit cAutoTestThread(QObject* parent = nullptr);
    ~cAutoTestThread() override;

    // IPv4 address (text) of the WATCHTOWER SFTP server; set before start().
    void setServerAddress(const std::string& address);
    const std::string& serverAddress() const { return m_serverAddress; }

    // Sends the measurement file to the server, keeping it locally; non-zero when it arrived.
    int Upload(const std::string& localFile);

signals:
    void sig_ThreadEnd(int _error);
    void sig_ThreadUpdText(QString _msgTxt);

public slots:
    void OnFinish();
    void OnResetState(bool _state);

protected:
    void run() override;

private:
    void report(const QString& line);
    void fail(const QString& line);

    void checkIdentity();
    void checkStorage();
    void checkDate();
    bool checkDongle();
    bool checkCable(bool wifi);
    bool checkServer(bool cable, bool wifi);
    void checkNandWrite();
    void checkNandRead();
    void checkTransfer(bool connected);
    void checkFluidLibrary();
    void checkRelaysAndInputs(rwkTimer& timer);
    bool reportInputChange(gpioV2& gpio, int pin, int& lastSeen, const QString& line);
    void checkModule(CComRS485& link);
    void checkModuleV2(CComRS485& link);
    void reportValues(float weight, float pressure, float outlet, float inlet, float outside);
    void finish();

    std::string m_serverAddress;
    // Set by the GUI thread while run() goes on.
    std::atomic<bool> m_resetState{false};
    int m_errorCount = 0;
};

#endif
