// The main window in a simulated unit: the phase file decides what shows and what runs, the end of
// a run writes the next phase and reboots. The units run at ten times clock speed (see
// CMakeLists.txt): the five-second reboot delay takes half a second.
#include "app/fresultdisplay.h"
#include "app/mainwindow.h"
#include "keyboard/rwkvirtualkeyboard.h"

#include "testfiles.h"

#include <QApplication>
#include <QCheckBox>
#include <QLineEdit>
#include <QMessageBox>
#include <QSignalSpy>
#include <QTimer>
#include <QLabel>
#include <QLayout>
#include <QListWidget>
#include <QPushButton>
#include <QRegularExpression>
#include <QStackedWidget>
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
    for (int i = 0; list != nullptr && i < list->count(); ++i)
        lines << list->item(i)->text();
    return lines;
}

QString currentPage(MainWindow& window)
{
    auto* stack = window.findChild<QStackedWidget*>();
    return stack && stack->currentWidget() ? stack->currentWidget()->objectName() : QString();
}

QPushButton* button(MainWindow& window, const char* name)
{
    return window.findChild<QPushButton*>(name);
}

bool phaseFileExists()
{
    return access(kPhaseFile, F_OK) == 0;
}

// What the network restart leaves in the unit's journal, and what a failed one leaves.
const std::string kStopped = "/sbin/ifconfig wlan0 down\n"
                             "/sbin/ifconfig eth0 down\n"
                             "/etc/init.d/networking stop\n";
const std::string kRestart = kStopped + "/etc/init.d/networking restart\n";

const QString kResetBox = QString::fromUtf8("ATTENTION RESET BENCHMARK|Lancer le RESET ?!\n"
                                            "veuillez cliquer sur OK pour confirmer le RESET!|warning|Yes,No");

// Answers the reset box as soon as it shows, as an operator would. The returned text describes
// the box (title, text, icon and buttons) once it has been answered.
const QString& answerResetBox(QMessageBox::StandardButton answer)
{
    static QString seen;
    seen.clear();
    QTimer::singleShot(0, [answer]() {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (box == nullptr) {
            seen = "no box";
            return;
        }
        const bool yesNo = box->buttons().size() == 2 && box->button(QMessageBox::Yes) != nullptr &&
                           box->button(QMessageBox::No) != nullptr;
        seen = box->windowTitle() + "|" + box->text() + "|" +
               (box->icon() == QMessageBox::Warning ? "warning" : "other icon") + "|" +
               (yesNo ? "Yes,No" : "other buttons");
        QTest::mouseClick(box->button(answer), Qt::LeftButton);
    });
    return seen;
}

QPushButton* keyByText(RWKVirtualKeyboard* keyboard, const QString& text)
{
    for (QPushButton* key : keyboard->findChildren<QPushButton*>())
        if (key->isVisible() && key->text() == text)
            return key;
    qFatal("no key %s on the keyboard", qPrintable(text));
    return nullptr;
}

void tapKey(RWKVirtualKeyboard* keyboard, const QString& text)
{
    QTest::mouseClick(keyByText(keyboard, text), Qt::LeftButton);
}

} // namespace

class TestMainWindow : public QObject {
    Q_OBJECT

private slots:
    // Rows of one case share their unit: each starts without a phase file.
    void init() { unlink(kPhaseFile); }

    void formOfTheWindow()
    {
        MainWindow window;
        QCOMPARE(window.objectName(), QString("MainWindow"));
        QCOMPARE(int(window.windowFlags()), 0x1801);
        QCOMPARE(window.windowTitle(), QString("tov_benchmark"));
        QCOMPARE(window.size(), QSize(640, 480));
        QCOMPARE(window.maximumSize(), QSize(640, 480));
        QCOMPARE(window.font().pointSize(), 16);
        QCOMPARE(window.font().weight(), int(QFont::Bold));

        auto* title = window.findChild<QLabel*>("label_title");
        QVERIFY(title != nullptr);
        QCOMPARE(title->text(), QString("BENCHMARK/TESTS TOV USINE"));
        QCOMPARE(title->font().pointSize(), 18);
        QCOMPARE(title->maximumHeight(), 40);
        QCOMPARE(title->styleSheet(), QString("color: rgb(0, 51, 102);"));
        QCOMPARE(title->alignment(), Qt::AlignCenter);
        QCOMPARE(button(window, "pB_resetBench")->text(), QString("RESET BenchMark"));
        QCOMPARE(button(window, "pB_reboot")->text(), QString::fromUtf8("Redémarrage TOV"));
        for (const char* name : {"centralWidget"})
            QVERIFY(window.findChild<QWidget*>(name) != nullptr);
        for (const char* name : {"gridLayout", "verticalLayout", "verticalLayout_widget", "verticalLayout_keyboard",
                                 "horizontalLayout"}) {
            auto* layout = window.findChild<QLayout*>(name);
            QVERIFY2(layout != nullptr, name);
            QCOMPARE(layout->spacing(), 6);
        }
        QCOMPARE(window.findChild<QLayout*>("gridLayout")->contentsMargins(), QMargins(11, 11, 11, 11));
    }

    void withoutPhaseFileTheFormShowsAndNothingRuns()
    {
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QCOMPARE(currentPage(window), QString("fNetworkConf"));
        QVERIFY(button(window, "pB_reboot")->isHidden());
        QVERIFY(button(window, "pB_resetBench")->isHidden());
        QTest::qWait(2000);
        QCOMPARE(panelLines(window), QStringList());
        QCOMPARE(unitJournal(), std::string());
    }

    void phaseFileWithOtherThanThreeLinesMeansPhaseZero_data()
    {
        QTest::addColumn<QString>("content");
        QTest::newRow("two lines") << "1\n0\n";
        QTest::newRow("four lines") << "1\n0\n192.0.2.10\nextra\n";
        QTest::newRow("empty") << "";
        QTest::newRow("phase never written") << "7\n0\n192.0.2.10\n";
        QTest::newRow("garbage") << "\x01\x02zz\n\xff\n\n";
        QTest::newRow("cut in the address") << "1\n0\n192.0";
    }

    void phaseFileWithOtherThanThreeLinesMeansPhaseZero()
    {
        QFETCH(QString, content);
        writeText(kPhaseFile, content.toLatin1().toStdString());
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QCOMPARE(currentPage(window), QString("fNetworkConf"));
        QVERIFY(button(window, "pB_resetBench")->isHidden());
        QTest::qWait(500);
        QCOMPARE(panelLines(window), QStringList());
    }

    void phaseOneStartsOnShowAndStopsOnErrors()
    {
        writeText(kPhaseFile, "1\n0\n198.51.100.7\n");
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QVERIFY(!button(window, "pB_resetBench")->isHidden());
        QVERIFY(button(window, "pB_reboot")->isHidden());
        QCOMPARE(currentPage(window), QString("fResultDisplay"));
        // The start line is cleared at once by the test start; the stage lines follow in order.
        QTRY_VERIFY(panelLines(window).size() >= 3);
        const QStringList first = panelLines(window).mid(0, 3);
        QVERIFY2(first[0].startsWith("Kernel Version: "), qPrintable(first[0]));
        QCOMPARE(first[1], QString("Composant ETHERNET: DM9000-A"));
        QVERIFY2(QRegularExpression("^Espace de Stockage \\(libre/total\\): \\d+Mo/128Mo$").match(first[2]).hasMatch(),
                 qPrintable(first[2]));

        // This unit has no network and no module: the run ends with errors.
        const QString errorLine = QString::fromUtf8("ERREUR Détéctés(s), veuillez vérifier/corriger puis Redémarrer");
        QTRY_VERIFY_WITH_TIMEOUT(panelLines(window).contains(errorLine), 120000);
        const QStringList lines = panelLines(window);
        QCOMPARE(lines.mid(lines.size() - 2), QStringList({"AutoTest Terminer!", errorLine}));
        QPushButton* reboot = button(window, "pB_reboot");
        QCOMPARE(reboot->text(), QString::fromUtf8("ERREUR Détéctés(s) - Redémarrage TOV"));
        QVERIFY(!reboot->isHidden());
        QVERIFY(!button(window, "pB_resetBench")->isHidden());
        QCOMPARE(readText(kPhaseFile), std::string("1\n0\n198.51.100.7\n"));
        QTest::qWait(6000);
        QCOMPARE(unitJournal(), std::string("dmesg\n"));

        QTest::mouseClick(reboot, Qt::LeftButton);
        QCOMPARE(unitJournal(), std::string("dmesg\n/sbin/reboot\n"));
    }

    void successWritesTheNextPhaseThenRebootsFiveSecondsLater_data()
    {
        QTest::addColumn<QString>("before");
        QTest::addColumn<QString>("after");
        QTest::addColumn<int>("shownPhase");
        QTest::newRow("phase 1") << "" << "1\n0\n\n" << 1;
        QTest::newRow("phase 2") << "1\n1\n198.51.100.7\n" << "2\n1\n198.51.100.7\n" << 2;
    }

    void successWritesTheNextPhaseThenRebootsFiveSecondsLater()
    {
        QFETCH(QString, before);
        QFETCH(QString, after);
        QFETCH(int, shownPhase);
        if (!before.isEmpty())
            writeText(kPhaseFile, before.toStdString());
        writeText("/run/tovsim/journal", "");
        MainWindow window; // not shown: no run starts, the end of one is played here
        window.On_ThreadEnd(0);
        QCOMPARE(readText(kPhaseFile), after.toStdString());
        QTRY_COMPARE(panelLines(window),
                     QStringList(QString::fromUtf8("Test TOV %1/3 términé, redémarrage TOV... dans 5 secondes")
                                     .arg(shownPhase)));
        QTest::qWait(4500);
        QCOMPARE(unitJournal(), std::string());
        QTRY_COMPARE_WITH_TIMEOUT(unitJournal(), std::string("/sbin/reboot\n"), 2000);
    }

    void errorsInALaterPhaseOfferRebootAndReset()
    {
        writeText(kPhaseFile, "2\n0\n198.51.100.7\n");
        MainWindow window;
        window.On_ThreadEnd(3);
        QTRY_COMPARE(panelLines(window),
                     QStringList(QString::fromUtf8("ERREUR Détéctés(s), veuillez vérifier/corriger puis Redémarrer")));
        auto* list = window.findChild<QListWidget*>("msgDisplay");
        QCOMPARE(list->item(0)->foreground().color(), QColor(Qt::red));
        QVERIFY(!button(window, "pB_reboot")->isHidden());
        QVERIFY(!button(window, "pB_resetBench")->isHidden());
        QCOMPARE(readText(kPhaseFile), std::string("2\n0\n198.51.100.7\n"));
        QTest::qWait(6000);
        QCOMPARE(unitJournal(), std::string());
    }

    void firstPhaseStartsFromTheFormAndComesBackToItOnErrors()
    {
        writeText("/run/tovsim/journal", "");
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        auto* keyboard = window.findChild<RWKVirtualKeyboard*>();
        QVERIFY(keyboard != nullptr && keyboard->isVisible());
        QVERIFY(keyboard->minimumWidth() >= 260 && keyboard->minimumHeight() >= 120);
        QVERIFY(button(window, "pB_reboot")->isHidden());
        QVERIFY(button(window, "pB_resetBench")->isHidden());

        // The operator sets a server and asks for the restore, then applies: the network is
        // reconfigured (the server changed) and the test starts.
        QLineEdit* server = window.findChild<QLineEdit*>("lineEditSftpSrvIP");
        server->selectAll();
        QTest::keyClicks(server, "192.0.2.11 ");
        QTest::keyClick(server, Qt::Key_Backspace);
        window.findChild<QCheckBox*>("checkBox_usbRestore")->setChecked(true);
        QTest::mouseClick(button(window, "pB_ApllyNetworkConf"), Qt::LeftButton);
        QCOMPARE(currentPage(window), QString("fResultDisplay"));
        QVERIFY(!keyboard->isVisible());
        QCOMPARE(unitJournal().substr(0, kRestart.size()), kRestart);

        // This unit has no network and no module: back to the form as the operator left it.
        QTRY_COMPARE_WITH_TIMEOUT(currentPage(window), QString("fNetworkConf"), 120000);
        QVERIFY(keyboard->isVisible());
        QCOMPARE(server->text(), QString("192.0.2.11"));
        QVERIFY(window.findChild<QCheckBox*>("checkBox_usbRestore")->isChecked());
        QVERIFY(button(window, "pB_reboot")->isHidden());
        QVERIFY(!phaseFileExists());

        // A run without errors would write the operator's choices into the phase file.
        window.On_ThreadEnd(0);
        QCOMPARE(readText(kPhaseFile), std::string("1\n1\n192.0.2.11\n"));
    }

    void typingOnTheKeyboardFillsTheFocusedEdit()
    {
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        QLineEdit* server = window.findChild<QLineEdit*>("lineEditSftpSrvIP");
        QTest::mouseClick(server, Qt::LeftButton);
        server->clear();
        auto* keyboard = window.findChild<RWKVirtualKeyboard*>();
        tapKey(keyboard, "A");
        tapKey(keyboard, "B");
        QCOMPARE(server->text(), QString("ab"));
        QVERIFY(server->hasFocus());

        // A long press on E offers its accents; the second one is è.
        QPushButton* e = keyByText(keyboard, "E");
        QTest::mousePress(e, Qt::LeftButton);
        QTest::qWait(RWKVirtualKeyboard::LongPressMs + 300);
        QList<QPushButton*> accents;
        for (QPushButton* key : keyboard->findChildren<QPushButton*>())
            if (key->isVisible() && key->text() == QString::fromUtf8("è"))
                accents << key;
        QCOMPARE(accents.size(), 1);
        const QByteArray dir = qgetenv("TOV_ARTIFACT_DIR");
        QVERIFY(window.grab().save(QString::fromLocal8Bit(dir) + "/form-accents.png"));
        QTest::mouseRelease(e, Qt::LeftButton);
        QTest::mouseClick(accents[0], Qt::LeftButton);
        QCOMPARE(server->text(), QString::fromUtf8("abè"));
        QVERIFY(server->hasFocus());
    }

    void screenshotOfTheFormWithTheKeyboard()
    {
        MainWindow window;
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        const QImage shot = window.grab().toImage();
        QCOMPARE(shot.size(), QSize(640, 480));
        const QByteArray dir = qgetenv("TOV_ARTIFACT_DIR");
        QVERIFY(shot.save(QString::fromLocal8Bit(dir) + "/form-keyboard.png"));
        // Every widget of the form and the keyboard lies inside the window.
        for (QWidget* w : window.findChildren<QWidget*>()) {
            if (!w->isVisible())
                continue;
            const QRect r(w->mapTo(&window, QPoint(0, 0)), w->size());
            QVERIFY2(QRect(0, 0, 640, 480).contains(r), qPrintable(w->objectName()));
        }
    }

    void successOfTheThirdPhaseHandsOverToProduction()
    {
        writeText(kPhaseFile, "2\n0\n198.51.100.7\n");
        writeText("/run/tovsim/journal", "");
        MainWindow window;
        window.On_ThreadEnd(0);
        QVERIFY(!phaseFileExists());
        const std::string starter = readText("/home/TOV/tov_starter");
        QVERIFY(starter.find("\nTOV_BIN_NAME=tovQT\n") != std::string::npos);
        QVERIFY(starter.find("TOV_BIN_NAME=tov_test") == std::string::npos);
        QTRY_COMPARE(panelLines(window),
                     QStringList({QString::fromUtf8("Test TOV términé, le prochain redémarrage lancera l'application TOV"),
                                  QString::fromUtf8("Mise en place configuration du réseau par défaut/usine OK")}));
        QVERIFY(readText("/etc/network/interfaces").find("iface eth0 inet static\n"
                                                         " address 192.168.1.48\n"
                                                         " netmask 255.255.255.0\n"
                                                         " gateway 192.168.1.1\n")
                != std::string::npos);
        // The reboot comes five seconds after the network restart.
        QTest::qWait(4500);
        QCOMPARE(unitJournal(), kRestart);
        QTRY_COMPARE_WITH_TIMEOUT(unitJournal(), kRestart + "/sbin/reboot\n", 2000);
    }

    void completionRebootsEvenWhenTheNetworkStepFails()
    {
        writeText(kPhaseFile, "2\n0\n198.51.100.7\n");
        writeText("/run/tovsim/journal", "");
        QCOMPARE(system("mount -o remount,ro /etc/network"), 0);
        MainWindow window;
        window.On_ThreadEnd(0);
        QCOMPARE(system("mount -o remount,rw /etc/network"), 0);
        QVERIFY(!phaseFileExists());
        QVERIFY(readText("/home/TOV/tov_starter").find("\nTOV_BIN_NAME=tovQT\n") != std::string::npos);
        QTRY_COMPARE_WITH_TIMEOUT(unitJournal(), kStopped + "/sbin/reboot\n", 7000);
        QCOMPARE(panelLines(window),
                 QStringList(QString::fromUtf8("Test TOV términé, le prochain redémarrage lancera l'application TOV")));
    }

    void resetAnsweredNoOrWithoutPhaseFileOnlyPutsEth0OnDhcp_data()
    {
        QTest::addColumn<QString>("phaseFile");
        QTest::addColumn<int>("answer");
        QTest::newRow("No in phase 1") << "1\n0\n192.0.2.10\n" << int(QMessageBox::No);
        QTest::newRow("Yes without phase file") << "" << int(QMessageBox::Yes);
        QTest::newRow("No without phase file") << "" << int(QMessageBox::No);
    }

    void resetAnsweredNoOrWithoutPhaseFileOnlyPutsEth0OnDhcp()
    {
        QFETCH(QString, phaseFile);
        QFETCH(int, answer);
        if (!phaseFile.isEmpty())
            writeText(kPhaseFile, phaseFile.toStdString());
        writeText("/run/tovsim/journal", "");
        MainWindow window; // not shown: no run starts
        QSignalSpy resets(&window, &MainWindow::sigResetBenchmark);
        const QString& box = answerResetBox(QMessageBox::StandardButton(answer));
        window.OnResetBenchMark();
        QCOMPARE(box, kResetBox);
        QCOMPARE(resets.count(), 0);
        QCOMPARE(unitJournal(), kRestart);
        QVERIFY(readText("/etc/network/interfaces").find("iface eth0 inet dhcp\n") != std::string::npos);
        QTRY_COMPARE(panelLines(window),
                     QStringList(QString::fromUtf8(
                         "RESET BENCHMARK, Mise en place configuration du réseau par défaut/usine OK")));
        QCOMPARE(phaseFileExists(), !phaseFile.isEmpty());
        QTest::qWait(3000);
        QCOMPARE(unitJournal(), kRestart);
    }

    void resetAnsweredYesInPhaseOneRebootsTwoSecondsLater()
    {
        writeText(kPhaseFile, "1\n0\n192.0.2.10\n");
        writeText("/run/tovsim/journal", "");
        MainWindow window;
        QSignalSpy resets(&window, &MainWindow::sigResetBenchmark);
        answerResetBox(QMessageBox::Yes);
        window.OnResetBenchMark();
        QCOMPARE(resets.count(), 1);
        QCOMPARE(resets[0][0].toBool(), true);
        QVERIFY(!phaseFileExists());
        QTRY_COMPARE(panelLines(window),
                     QStringList(QString::fromUtf8("RESET BENCHMARK, redémarrage du BENCHMARK en mode USINE...")));
        QTest::qWait(1500);
        QCOMPARE(unitJournal(), std::string());
        QTRY_COMPARE_WITH_TIMEOUT(unitJournal(), std::string("/sbin/reboot\n"), 1500);
    }

    void successOfTheThirdPhaseWithRestoreOpensTheUsbPageFirst()
    {
        writeText(kPhaseFile, "2\n1\n198.51.100.7\n");
        writeText("/run/tovsim/journal", "");
        MainWindow window;
        window.On_ThreadEnd(0);
        QCOMPARE(currentPage(window), QString("CopyFilesToUSB"));
        QTest::qWait(6000);
        QVERIFY(phaseFileExists());
        QCOMPARE(unitJournal(), std::string());

        // Not shown, as showing a later phase starts a run: the window is drawn for the screenshot.
        const QByteArray dir = qgetenv("TOV_ARTIFACT_DIR");
        QVERIFY(window.grab().save(QString::fromLocal8Bit(dir) + "/usb-page.png"));
        QTest::mouseClick(window.findChild<QPushButton*>("pB_QuitUsb"), Qt::LeftButton);
        QVERIFY(!phaseFileExists());
        QVERIFY(readText("/home/TOV/tov_starter").find("\nTOV_BIN_NAME=tovQT\n") != std::string::npos);
        QTRY_COMPARE_WITH_TIMEOUT(unitJournal(), kRestart + "/sbin/reboot\n", 7000);
    }

    void screenshotWithARedAndADefaultLine()
    {
        writeText(kPhaseFile, "1\n0\n192.0.2.10\n");
        MainWindow window; // phase 1 without showing: the panel is the page, no run starts
        window.OnDisplayResult(QString::fromUtf8("Démarrage des Tests du TOV..."));
        window.OnDisplayResult(QString::fromUtf8("ERREUR Câble Réseau Ethernet NON branché/configuré, veuillez vérifier !"));
        window.OnDisplayResult(QString::fromUtf8("Librairie VITRANOL installée OK"));
        const QImage shot = window.grab().toImage();
        QCOMPARE(shot.size(), QSize(640, 480));

        int red = 0;
        for (int y = 0; y < shot.height(); ++y)
            for (int x = 0; x < shot.width(); ++x) {
                const QColor c = shot.pixelColor(x, y);
                if (c.red() > 200 && c.green() < 60 && c.blue() < 60)
                    ++red;
            }
        QVERIFY2(red > 100, "the failure line is not drawn in red");

        const QByteArray dir = qgetenv("TOV_ARTIFACT_DIR");
        QVERIFY2(!dir.isEmpty(), "TOV_ARTIFACT_DIR names the folder for the screenshot");
        QVERIFY(shot.save(QString::fromLocal8Bit(dir) + "/mainwindow-results.png"));
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
