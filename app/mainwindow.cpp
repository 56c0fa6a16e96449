#include "app/mainwindow.h"

#include "app/fresultdisplay.h"
#include "app/phasefile.h"
#include "autotest/cautotestthread.h"
#include "keyboard/rwkvirtualkeyboard.h"
#include "net/interfacesfile.h"
#include "ui_mainwindow.h"
#include "usb/copyfilestousb.h"
#include "utils/fileops.h"
#include "utils/systemops.h"

#include <QMessageBox>
#include <QPushButton>
#include <QShowEvent>
#include <QStackedWidget>
#include <QTimer>

#include <cstdlib>

const char* const TOV_PHASE_FILE = "/home/TOV/tov_test.cfg";

namespace {
const int kLastPhase = 3;
const int kRebootDelayMs = 5000;
const int kResetRebootDelayMs = 2000;
} // namespace

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent)
    , ui(new Ui::MainWindow)
{
    ui->setupUi(this);
    setWindowFlags(Qt::Window | Qt::FramelessWindowHint | Qt::WindowTitleHint);

    readPhaseFile();

    ui->pB_reboot->hide();
    connect(ui->pB_reboot, &QPushButton::clicked, this, &MainWindow::OnRebootTov);
    ui->pB_resetBench->hide();
    connect(ui->pB_resetBench, &QPushButton::clicked, this, &MainWindow::OnResetBenchMark);
    connect(this, &MainWindow::sigOnStartTest, this, &MainWindow::OnStartTest);
    connect(this, &MainWindow::sigRebootTov, this, &MainWindow::OnRebootTov);

    m_stack = new QStackedWidget(this);
    connect(m_stack, &QStackedWidget::currentChanged, this, &MainWindow::OnStackIndexChanged);
    ui->verticalLayout_widget->addWidget(m_stack);

    m_resultDisplay = new fResultDisplay(m_stack);
    connect(this, &MainWindow::sigDisplayResult, m_resultDisplay, &fResultDisplay::OnResultDisplay,
            Qt::QueuedConnection);
    m_stack->addWidget(m_resultDisplay);

    // The network can be edited only before the first phase: later phases have no form.
    if (m_phase == 0)
        createNetworkPages();
}

MainWindow::~MainWindow()
{
    if (m_thread != nullptr) {
        // A run still going is waited for: deleting a running thread would abort the program.
        m_thread->wait();
        delete m_thread;
    }
    delete m_keyboard;
    delete ui;
}

void MainWindow::createNetworkPages()
{
    m_keyboard = new RWKVirtualKeyboard(this);
    m_keyboard->setMinimumSize(260, 120);
    ui->verticalLayout_keyboard->addWidget(m_keyboard);
    m_keyboard->hide();

    m_networkForm = new fNetworkConf(m_stack);
    m_stack->addWidget(m_networkForm);
    connect(m_networkForm, &fNetworkConf::sigNetDispMsg, m_resultDisplay, &fResultDisplay::OnResultDisplay,
            Qt::QueuedConnection);
    connect(m_networkForm, &fNetworkConf::sigTestStart, this, &MainWindow::OnStartTest);
}

void MainWindow::showNetworkForm()
{
    m_keyboard->show();
    m_stack->setCurrentWidget(m_networkForm);
}

void MainWindow::readPhaseFile()
{
    // Any other file, or a phase the bench never writes, counts as no file at all: the bench
    // starts again from its first phase.
    TovPhaseState state;
    if (tovReadPhaseFile(TOV_PHASE_FILE, state)) {
        m_phase = state.phase;
        m_restoreChoice = state.restoreChoice;
        m_serverAddress = QString::fromLocal8Bit(state.serverAddress.c_str());
    }
}

void MainWindow::writePhaseFile()
{
    const QString text = QStringLiteral("%1\n%2\n%3\n").arg(m_phase).arg(m_restoreChoice).arg(m_serverAddress);
    writeToFile(TOV_PHASE_FILE, text.toLocal8Bit().toStdString(), false, false);
}

void MainWindow::showEvent(QShowEvent* event)
{
    QMainWindow::showEvent(event);
    if (m_phase != 0) {
        // After a reboot into phase 2 or 3 the test starts at once, with no operator.
        ui->pB_resetBench->show();
        m_stack->setCurrentWidget(m_resultDisplay);
        OnDisplayResult(tr("Démarrage des Tests du TOV..."));
        emit sigOnStartTest();
    } else if (m_networkForm != nullptr) {
        showNetworkForm();
    }
}

void MainWindow::OnStackIndexChanged(int /*aIndex*/)
{
}

void MainWindow::OnDisplayResult(QString text)
{
    if (m_resultDisplay != nullptr)
        m_resultDisplay->OnResultDisplay(text);
}

void MainWindow::OnStartTest()
{
    if (m_networkForm != nullptr) {
        m_savedSettings = m_networkForm->settings();
        m_serverAddress = m_savedSettings.sftpServer;
        m_restoreChoice = m_savedSettings.restore ? 1 : 0;
    }
    if (m_keyboard != nullptr)
        m_keyboard->hide();
    m_resultDisplay->OnDisplayClear();
    m_stack->setCurrentWidget(m_resultDisplay);
    m_resultDisplay->show();

    if (m_thread != nullptr) {
        m_thread->exit(0);
        // Deleting a thread that still runs would abort the bench: wait for its sequence to end.
        m_thread->wait();
        delete m_thread;
        m_thread = nullptr;
    }
    m_thread = new cAutoTestThread();
    m_thread->setServerAddress(m_serverAddress.toLocal8Bit().toStdString());
    connect(m_thread, &cAutoTestThread::sig_ThreadEnd, this, &MainWindow::On_ThreadEnd);
    connect(m_thread, &cAutoTestThread::sig_ThreadUpdText, this, &MainWindow::OnDisplayResult);
    connect(this, &MainWindow::sigResetBenchmark, m_thread, &cAutoTestThread::OnResetState);
    m_thread->start(QThread::InheritPriority);
}

void MainWindow::On_ThreadEnd(int _status)
{
    if (_status > 0 && m_networkForm == nullptr) {
        // The same phase runs again once the operator has corrected the fault and rebooted.
        emit sigDisplayResult(tr("ERREUR Détéctés(s), veuillez vérifier/corriger puis Redémarrer"));
        ui->pB_reboot->setText(tr("ERREUR Détéctés(s) - Redémarrage TOV"));
        ui->pB_reboot->show();
        ui->pB_resetBench->show();
        return;
    }
    if (_status > 0) {
        // Back to the form as the operator left it, to correct the network and start again.
        m_networkForm->setSettings(m_savedSettings);
        m_networkForm->reLoadCfg();
        showNetworkForm();
        return;
    }
    ++m_phase;
    if (m_phase == kLastPhase) {
        if (m_restoreChoice == 0) {
            OnEndBenchMark();
            return;
        }
        auto* usbPage = new CopyFilesToUSB(m_stack);
        connect(usbPage, &CopyFilesToUSB::sig_usbExit, this, &MainWindow::OnEndBenchMark);
        m_stack->addWidget(usbPage);
        m_stack->setCurrentWidget(usbPage);
        usbPage->show();
        return;
    }
    writePhaseFile();
    emit sigDisplayResult(tr("Test TOV %1/3 términé, redémarrage TOV... dans 5 secondes").arg(m_phase));
    QTimer::singleShot(kRebootDelayMs, this, &MainWindow::OnRebootTov);
}

void MainWindow::OnRebootTov()
{
    systemCommand("/sbin/reboot");
}

void MainWindow::OnResetBenchMark()
{
    QMessageBox box(QMessageBox::Warning, tr("ATTENTION RESET BENCHMARK"),
                    tr("Lancer le RESET ?!\nveuillez cliquer sur OK pour confirmer le RESET!"),
                    QMessageBox::Yes | QMessageBox::No);
    const int answer = box.exec();
    if (answer == QMessageBox::Yes && tovFileExist(TOV_PHASE_FILE)) {
        emit sigResetBenchmark(true);
        emit sigDisplayResult(tr("RESET BENCHMARK, redémarrage du BENCHMARK en mode USINE..."));
        tovFileDelete(TOV_PHASE_FILE);
        QTimer::singleShot(kResetRebootDelayMs, this, &MainWindow::OnRebootTov);
        return;
    }
    // Also on No, on purpose: the reset button always leaves the unit with a working network.
    if (reconfigureNetwork("eth0", 1, " ", " ", " ", " ", " ") == 1)
        emit sigDisplayResult(tr("RESET BENCHMARK, Mise en place configuration du réseau par défaut/usine OK"));
}

void MainWindow::OnEndBenchMark()
{
    modifyTOVstarterFile("TOV_BIN_NAME=tov_test", "TOV_BIN_NAME=tovQT");
    tovFileDelete(TOV_PHASE_FILE);
    emit sigDisplayResult(tr("Test TOV términé, le prochain redémarrage lancera l'application TOV"));
    if (reconfigureNetwork("eth0", 0, "192.168.1.48", "255.255.255.0", "192.168.1.1", " ", " ") == 1)
        emit sigDisplayResult(tr("Mise en place configuration du réseau par défaut/usine OK"));
    // The unit reboots whatever the network step gave.
    QTimer::singleShot(kRebootDelayMs, this, &MainWindow::OnRebootTov);
}
