// The bench's one window: result panel, network form and USB restore page on a page stack, the
// test thread, and the three test phases kept across reboots in the phase file.
#ifndef TOV_APP_MAINWINDOW_H
#define TOV_APP_MAINWINDOW_H

#include "net/fnetworkconf.h"

#include <QMainWindow>
#include <QString>

class QShowEvent;
class QStackedWidget;
class QWidget;
class RWKVirtualKeyboard;
class cAutoTestThread;
class fResultDisplay;

namespace Ui {
class MainWindow;
}

extern const char* const TOV_PHASE_FILE; // "/home/TOV/tov_test.cfg"

class MainWindow : public QMainWindow {
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

signals:
    void sigDisplayResult(QString _result);
    void sigOnStartTest();
    void sigRebootTov();
    void sigResetBenchmark(bool _state);

public slots:
    void OnEndBenchMark();
    void OnStackIndexChanged(int aIndex);
    void OnDisplayResult(QString);
    void OnStartTest();
    void On_ThreadEnd(int _status);
    void OnRebootTov();
    void OnResetBenchMark();

protected:
    void showEvent(QShowEvent* event) override;

private:
    void readPhaseFile();
    void writePhaseFile();
    void createNetworkPages();
    void showNetworkForm();

    Ui::MainWindow* ui;
    cAutoTestThread* m_thread = nullptr;
    int m_phase = 0;
    QStackedWidget* m_stack = nullptr;
    RWKVirtualKeyboard* m_keyboard = nullptr;
    fResultDisplay* m_resultDisplay = nullptr;
    fNetworkConf* m_networkForm = nullptr;
    int m_restoreChoice = 0;
    QString m_serverAddress;
    fNetworkConf::Settings m_savedSettings; // taken at test start, put back after a failed run
};

#endif
