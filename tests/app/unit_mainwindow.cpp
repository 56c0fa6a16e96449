// The main window in a simulated unit without network or module: the phase file decides what shows
// and what runs, the end of a run or the reset button decide what the unit does next. The unit runs
// at four times clock speed (see CMakeLists.txt); durations are taken on this process's clock,
// which is the unit's.
#include "app/mainwindow.h"
#include "keyboard/rwkvirtualkeyboard.h"

#include "testfiles.h"

#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QTimer>
#include <QtTest>

#include <unistd.h>

#include <cstdlib>

using tovtest::readText;
using tovtest::unitJournal;
using tovtest::writeText;

namespace {

const char* const kPhaseFile = "/home/TOV/tov_test.cfg";

QStringList panelLines(MainWindow& window)
{
    QStringList lines;
    auto* list = window.findChild<QListWidget*>("msgDisplay");
    for (int i = 0; i < list->count(); ++i)
        lines << list->item(i)->text();
    return lines;
}

QString currentPage(MainWindow& window)
{
    return window.findChild<QStackedWidget*>()->currentWidget()->objectName();
}

QPushButton* button(MainWindow& window, const char* name)
{
    return window.findChild<QPushButton*>(name);
}

// The phase file's text, "-" when there is none.
std::string phaseFile()
{
    return access(kPhaseFile, F_OK) == 0 ? readText(kPhaseFile) : "-";
}

// Milliseconds until the unit's journal reads `expected`, the event loop turning meanwhile; -1
// when it does not within limitMs.
qint64 msUntilJournal(const std::string& expected, int limitMs)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < limitMs) {
        if (unitJournal() == expected)
            return clock.elapsed();
        QTest::qWait(10);
    }
    return -1;
}

// What the network restart leaves in the unit's journal, and what a failed one leaves.
const QString kStopped = "/sbin/ifconfig wlan0 down\n/sbin/ifconfig eth0 down\n/etc/init.d/networking stop\n";
const QString kRestart = kStopped + "/etc/init.d/networking restart\n";
const QString kReboot = "/sbin/reboot\n";
const QString kErrors = QString::fromUtf8("ERREUR Détéctés(s), veuillez vérifier/corriger puis Redémarrer");

// Answers the reset box as soon as it shows, as an operator would. The returned text describes
// the box (title, text, icon, buttons) once it has been answered.
const QString& answerResetBox(QMessageBox::StandardButton answer)
{
    static QString seen;
    seen = "no box";
    QTimer::singleShot(0, [answer]() {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        const bool warningYesNo = box->icon() == QMessageBox::Warning &&
                                  box->standardButtons() == (QMessageBox::Yes | QMessageBox::No);
        seen = box->windowTitle() + "|" + box->text() + (warningYesNo ? "|warning, Yes and No" : "|other");
        QTest::mouseClick(box->button(answer), Qt::LeftButton);
    });
    return seen;
}

} // namespace

class TestMainWindow : public QObject {
    Q_OBJECT

private slots:
    // Rows of one case share their unit: each starts as a unit fresh from the factory would.
    void init()
    {
        unlink(kPhaseFile);
        writeText("/run/tovsim/journal", "");
        writeText("/home/TOV/tov_starter", "#!/bin/sh\nTOV_BIN_NAME=tov_test\n");
        writeText("/etc/network/interfaces", "auto eth0\niface eth0 inet dhcp\n");
    }

    void firstPhaseStartsFromTheFormAndComesBackToItOnErrors()
    {
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        auto* keyboard = window.findChild<RWKVirtualKeyboard*>();
        QCOMPARE(currentPage(window), QString("fNetworkConf"));
        QVERIFY(keyboard->isVisible());
        QVERIFY(button(window, "pB_reboot")->isHidden());
        QVERIFY(button(window, "pB_resetBench")->isHidden());
        // The form and the keyboard fit the unit's screen.
        for (QWidget* w : window.findChildren<QWidget*>())
            QVERIFY2(!w->isVisible() || QRect(0, 0, 640, 480).contains(QRect(w->mapTo(&window, QPoint()), w->size())),
                     qPrintable(w->objectName()));
        // Nothing runs until the form asks.
        QTest::qWait(2000);
        QCOMPARE(panelLines(window), QStringList());
        QCOMPARE(unitJournal(), std::string());

        // The operator sets a server and asks for the restore, then applies: the network is
        // reconfigured (the server changed) and the test starts.
        QLineEdit* server = window.findChild<QLineEdit*>("lineEditSftpSrvIP");
        server->setText("192.0.2.11");
        window.findChild<QCheckBox*>("checkBox_usbRestore")->setChecked(true);
        QTest::mouseClick(button(window, "pB_ApllyNetworkConf"), Qt::LeftButton);
        QCOMPARE(currentPage(window), QString("fResultDisplay"));
        QVERIFY(!keyboard->isVisible());
        QVERIFY(QString::fromStdString(unitJournal()).startsWith(kRestart));

        // This unit has no network and no module: back to the form as the operator left it.
        QTRY_COMPARE_WITH_TIMEOUT(currentPage(window), QString("fNetworkConf"), 240000);
        QVERIFY(keyboard->isVisible());
        QCOMPARE(server->text(), QString("192.0.2.11"));
        QVERIFY(window.findChild<QCheckBox*>("checkBox_usbRestore")->isChecked());
        QVERIFY(button(window, "pB_reboot")->isHidden());
        QCOMPARE(phaseFile(), std::string("-"));

        // A run without errors writes the operator's choices into the phase file.
        window.On_ThreadEnd(0);
        QCOMPARE(phaseFile(), std::string("1\n1\n192.0.2.11\n"));
    }

    void laterPhaseStartsOnShowAndStopsOnErrors()
    {
        writeText(kPhaseFile, "1\n0\n198.51.100.7\n");
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QVERIFY(!button(window, "pB_resetBench")->isHidden());
        QVERIFY(button(window, "pB_reboot")->isHidden());
        QCOMPARE(currentPage(window), QString("fResultDisplay"));
        QTRY_VERIFY(!panelLines(window).isEmpty());
        QVERIFY(panelLines(window)[0].startsWith("Kernel Version: "));

        // This unit has no network and no module: the run ends with errors, the same phase stays.
        QTRY_VERIFY_WITH_TIMEOUT(panelLines(window).contains(kErrors), 240000);
        const QStringList lines = panelLines(window);
        QCOMPARE(lines.mid(lines.size() - 2), QStringList({"AutoTest Terminer!", kErrors}));
        QPushButton* reboot = button(window, "pB_reboot");
        QCOMPARE(reboot->text(), QString::fromUtf8("ERREUR Détéctés(s) - Redémarrage TOV"));
        QVERIFY(!reboot->isHidden());
        QVERIFY(!button(window, "pB_resetBench")->isHidden());
        QCOMPARE(phaseFile(), std::string("1\n0\n198.51.100.7\n"));
        // The operator reboots, the window never does.
        QTest::qWait(6000);
        QCOMPARE(unitJournal(), std::string("dmesg\n"));
        QTest::mouseClick(reboot, Qt::LeftButton);
        QCOMPARE(unitJournal(), std::string("dmesg\n") + kReboot.toStdString());
    }

    // What follows a passed run, the restore page's exit or the reset button: the lines shown, the
    // phase file at once, then the unit's journal after the delay (-1: no reboot), the starter and
    // the wired interface.
    void endings_data()
    {
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("action");
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<QString>("after");
        QTest::addColumn<int>("delayMs");
        QTest::addColumn<QString>("journal");
        QTest::addColumn<bool>("production");
        QTest::addColumn<QString>("eth0");
        const QString done = QString::fromUtf8("Test TOV términé, le prochain redémarrage lancera l'application TOV");
        const QString factory = QString::fromUtf8("Mise en place configuration du réseau par défaut/usine OK");
        const QString fixed = "iface eth0 inet static\n address 192.168.1.48\n netmask 255.255.255.0\n gateway 192.168.1.1\n";
        const QString dhcp = "iface eth0 inet dhcp\n";
        const QStringList resetNet = {"RESET BENCHMARK, " + factory};
        const char* next = "Test TOV %1/3 términé, redémarrage TOV... dans 5 secondes";
        QTest::newRow("phase 1 passed") << "" << "pass" << QStringList(QString::fromUtf8(next).arg(1))
                                        << "1\n0\n\n" << 5000 << kReboot << false << dhcp;
        QTest::newRow("phase 2 passed") << "1\n1\n198.51.100.7\n" << "pass" << QStringList(QString::fromUtf8(next).arg(2))
                                        << "2\n1\n198.51.100.7\n" << 5000 << kReboot << false << dhcp;
        QTest::newRow("phase 3 passed") << "2\n0\n198.51.100.7\n" << "pass" << QStringList({done, factory}) << "-"
                                        << 5000 << kRestart + kReboot << true << fixed;
        QTest::newRow("phase 3 passed, network restart fails")
            << "2\n0\n198.51.100.7\n" << "pass, read-only network" << QStringList(done) << "-" << 5000
            << kStopped + kReboot << true << dhcp;
        QTest::newRow("phase 3 passed, restore first") << "2\n1\n198.51.100.7\n" << "restore" << QStringList({done, factory})
                                                       << "-" << 5000 << kRestart + kReboot << true << fixed;
        QTest::newRow("reset Yes in phase 1")
            << "1\n0\n192.0.2.10\n" << "Yes" << QStringList("RESET BENCHMARK, redémarrage du BENCHMARK en mode USINE...")
            << "-" << 2000 << kReboot << false << dhcp;
        // Without a phase file, and on No, the reset only puts eth0 back on automatic addressing.
        QTest::newRow("reset Yes in phase 0") << "" << "Yes" << resetNet << "-" << -1 << kRestart << false << dhcp;
        QTest::newRow("reset No in phase 1") << "1\n0\n192.0.2.10\n" << "No" << resetNet << "1\n0\n192.0.2.10\n" << -1
                                             << kRestart << false << dhcp;
    }

    void endings()
    {
        QFETCH(QString, before);
        QFETCH(QString, action);
        QFETCH(QStringList, lines);
        QFETCH(QString, after);
        QFETCH(int, delayMs);
        QFETCH(QString, journal);
        QFETCH(bool, production);
        QFETCH(QString, eth0);
        if (!before.isEmpty())
            writeText(kPhaseFile, before.toStdString());
        MainWindow window; // not shown: no run starts, its end is played here
        QSignalSpy resets(&window, &MainWindow::sigResetBenchmark);
        if (action == "Yes" || action == "No") {
            const QString& box = answerResetBox(action == "Yes" ? QMessageBox::Yes : QMessageBox::No);
            window.OnResetBenchMark();
            QCOMPARE(box, QString::fromUtf8("ATTENTION RESET BENCHMARK|Lancer le RESET ?!\nveuillez cliquer sur OK "
                                            "pour confirmer le RESET!|warning, Yes and No"));
        } else if (action.endsWith("read-only network")) {
            QCOMPARE(system("mount -o remount,ro /etc/network"), 0);
            window.On_ThreadEnd(0);
            QCOMPARE(system("mount -o remount,rw /etc/network"), 0);
        } else {
            window.On_ThreadEnd(0);
        }
        if (action == "restore") {
            // Completion waits for the restore page's exit.
            QCOMPARE(currentPage(window), QString("CopyFilesToUSB"));
            QTest::qWait(6000);
            QCOMPARE(phaseFile(), before.toStdString());
            QCOMPARE(unitJournal(), std::string());
            QTest::mouseClick(window.findChild<QPushButton*>("pB_QuitUsb"), Qt::LeftButton);
        }
        QCOMPARE(phaseFile(), after.toStdString());
        if (delayMs < 0) {
            QTest::qWait(6000);
            QCOMPARE(QString::fromStdString(unitJournal()), journal);
        } else {
            // Qt fires a coarse timer up to a twentieth early: a tenth is allowed.
            const qint64 ms = msUntilJournal(journal.toStdString(), 3 * delayMs);
            QVERIFY2(ms >= delayMs * 9 / 10 && ms <= delayMs + 2500, qPrintable(QString::number(ms)));
        }
        QTRY_COMPARE(panelLines(window), lines);
        QCOMPARE(resets.count(), action == "Yes" && !before.isEmpty() ? 1 : 0);
        const std::string starter = readText("/home/TOV/tov_starter");
        QVERIFY(starter.find(production ? "\nTOV_BIN_NAME=tovQT\n" : "\nTOV_BIN_NAME=tov_test\n") != std::string::npos);
        QVERIFY(readText("/etc/network/interfaces").find(eth0.toStdString()) != std::string::npos);
    }
};

int main(int argc, char** argv)
{
    const bool listing = argc > 1 && QByteArray(argv[1]) == "-functions";
    if (!listing && !tovtest::insideUnit(argv[0]))
        return 2;
    QApplication app(argc, argv);
    TestMainWindow test;
    return QTest::qExec(&test, argc, argv);
}

#include "unit_mainwindow.moc"
