// The network form in a simulated unit, filled as the operator fills it: its screen shows eth0's
// live values, an apply writes /etc/network/interfaces and restarts the network only when something
// changed, and the test is asked to start in every case. The unit's eth0 is 192.0.2.2/24 with its
// gateway at 192.0.2.10; its clock runs ten times faster (see CMakeLists.txt).
#include "net/fnetworkconf.h"

#include "testfiles.h"

#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QtTest>

#include <cstdlib>
#include <ctime>
#include <algorithm>
#include <vector>

using tovtest::readText;
using tovtest::unitJournal;

namespace {

const std::string kDownAndStop = "/sbin/ifconfig wlan0 down\n"
                                 "/sbin/ifconfig eth0 down\n"
                                 "/etc/init.d/networking stop\n";
const QString kHead = "# interfaces(5) file used by ifup(8) and ifdown(8)\n"
                      "auto lo\n"
                      "iface lo inet loopback\n"
                      "\n";

// What the operator reads, in reading order (rows top to bottom, each left to right; widgets whose
// middles are a few pixels apart share a row, as Qt versions lay them out a pixel or two apart):
// the text of each visible label, button and check box; a combo's items with the chosen one
// starred; an edit's text in brackets, with "-" after it when greyed out.
QStringList screen(QWidget& form)
{
    struct Seen {
        int middle, left;
        QString text;
    };
    std::vector<Seen> seen;
    for (QWidget* w : form.findChildren<QWidget*>()) {
        QString text;
        if (auto* label = qobject_cast<QLabel*>(w))
            text = label->text();
        else if (auto* button = qobject_cast<QAbstractButton*>(w))
            text = button->text();
        else if (auto* edit = qobject_cast<QLineEdit*>(w))
            text = "[" + edit->text() + "]" + (edit->isEnabled() ? "" : "-");
        else if (auto* combo = qobject_cast<QComboBox*>(w))
            for (int i = 0; i < combo->count(); ++i)
                text += (i ? "|" : "") + combo->itemText(i) + (i == combo->currentIndex() ? "*" : "");
        else
            continue;
        const QPoint at = w->mapTo(&form, QPoint(0, 0));
        if (w->isVisibleTo(&form))
            seen.push_back({at.y() + w->height() / 2, at.x(), text});
    }
    std::sort(seen.begin(), seen.end(), [](const Seen& a, const Seen& b) { return a.middle < b.middle; });
    for (size_t row = 0, next; row < seen.size(); row = next) {
        for (next = row + 1; next < seen.size() && seen[next].middle - seen[row].middle <= 6; ++next) {
        }
        std::sort(seen.begin() + row, seen.begin() + next, [](const Seen& a, const Seen& b) { return a.left < b.left; });
    }
    QStringList texts;
    for (const Seen& entry : seen)
        texts << entry.text;
    return texts;
}

// One operator step, "NAME=TEXT": a combo NAME gets the item TEXT chosen; otherwise NAME (an edit,
// or the button beside one) is tapped and the edit it focuses is emptied and typed TEXT into.
void act(fNetworkConf& form, const QString& step)
{
    const QString name = step.section('=', 0, 0);
    const QString text = step.section('=', 1);
    auto* widget = form.findChild<QWidget*>(name);
    QVERIFY2(widget && widget->isVisible() && widget->isEnabled(), qPrintable(step));
    if (auto* combo = qobject_cast<QComboBox*>(widget)) {
        QVERIFY2(combo->findText(text) >= 0, qPrintable(step));
        combo->setCurrentIndex(combo->findText(text));
        return;
    }
    QTest::mouseClick(widget, Qt::LeftButton);
    auto* edit = qobject_cast<QLineEdit*>(form.focusWidget());
    QVERIFY2(edit != nullptr, qPrintable(step));
    QTest::keyClick(edit, Qt::Key_End);
    while (!edit->text().isEmpty())
        QTest::keyClick(edit, Qt::Key_Backspace);
    QTest::keyClicks(edit, text);
}

void apply(fNetworkConf& form)
{
    QTest::mouseClick(form.findChild<QPushButton*>("pB_ApllyNetworkConf"), Qt::LeftButton);
}

} // namespace

class TestNetworkForm : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        tovtest::writeText("/run/tovsim/journal", "");
        QCOMPARE(system("ip link set eth0 address 02:0a:bc:00:ff:01"), 0);
    }

    void screen_data()
    {
        QTest::addColumn<QString>("shell");
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QStringList>("texts");
        const QStringList top = {QString::fromUtf8("Voulez vous Restaurer une Sauvegarde\n"
                                                   "CONFIG CLIENT à la fin du test (étape 3) ?"),
                                 QString::fromUtf8("Appliquer\nConfiguration Réseaux"),
                                 "Configuration de votre Reseau:", "Interface:"};
        const QStringList sftp = {"IP Serveur SFTP:", "[192.0.2.10]"};
        const QStringList mac = {"Adresse MAC :", "[02]", ":", "[0A]", ":", "[BC]", ":", "[00]", ":", "[FF]", ":", "[01]"};
        QTest::newRow("as it starts: Ethernet, DHCP")
            << "" << QStringList()
            << top + QStringList{"eth0 Ethernet*|wlan0  Wifi", "DHCP:", "OFF|ON*", "IP TOV:", "[192.0.2.2]-",
                                 "Masque:", "[255.255.255.0]-", "Passerelle :", "[192.0.2.10]-"} + sftp + mac;
        QTest::newRow("wireless chosen") << "" << QStringList{"comboBox_IFaceType=wlan0  Wifi"}
            << top + QStringList{"eth0 Ethernet|wlan0  Wifi*", "DHCP:", "OFF|ON*", "IP TOV:", "[192.0.2.2]-",
                                 "Masque:", "[255.255.255.0]-", "Passerelle :", "[192.0.2.10]-"} + sftp +
                   QStringList{"Wifi: SSID :", "[quorvin_wifi]", "Wifi: Cle Cryptage: ", "[5820174639936471028514]"} + mac;
        QTest::newRow("wireless, then Ethernet and no DHCP")
            << "" << QStringList{"comboBox_IFaceType=wlan0  Wifi", "comboBox_IFaceType=eth0 Ethernet",
                                 "comboBox_DHCP=OFF"}
            << top + QStringList{"eth0 Ethernet*|wlan0  Wifi", "DHCP:", "OFF*|ON", "IP TOV:", "[192.0.2.2]",
                                 "Masque:", "[255.255.255.0]", "Passerelle :", "[192.0.2.10]"} + sftp + mac;
        QTest::newRow("Ethernet without an address") << "ip addr flush dev eth0" << QStringList()
            << top + QStringList{"eth0 Ethernet*|wlan0  Wifi", "DHCP:", "OFF|ON*", "IP TOV:", "[0.0.0.0]-",
                                 "Masque:", "[0.0.0.0]-", "Passerelle :", "[0.0.0.0]-"} + sftp + mac;
    }

    void screen()
    {
        QFETCH(QString, shell);
        QFETCH(QStringList, steps);
        QFETCH(QStringList, texts);
        if (!shell.isEmpty())
            QCOMPARE(system(shell.toLocal8Bit().constData()), 0);
        fNetworkConf form;
        form.show();
        for (const QString& step : steps)
            act(form, step);
        QCOMPARE(::screen(form), texts);
    }

    // What an apply writes after the operator's steps; an empty file: nothing to reconfigure.
    void apply_data()
    {
        QTest::addColumn<QStringList>("steps");
        QTest::addColumn<QString>("file");
        QTest::newRow("nothing touched") << QStringList() << QString();
        QTest::newRow("Ethernet, static")
            << QStringList{"comboBox_DHCP=OFF", "lineEditIP=192.0.2.77", "lineEditMask=255.255.255.128"}
            << kHead + "auto eth0\nallow-hotplug eth0\niface eth0 inet static\n address 192.0.2.77\n"
                       " netmask 255.255.255.128\n gateway 192.0.2.10\n dns-nameservers 192.0.2.10\n\n";
        QTest::newRow("wireless, default name and key") << QStringList{"comboBox_IFaceType=wlan0  Wifi"}
            << kHead + "auto wlan0\nallow-hotplug wlan0\niface wlan0 inet dhcp\n wpa-ssid quorvin_wifi\n"
                       " wpa-psk 5820174639936471028514\n\n";
        QTest::newRow("wireless, static, name and key typed")
            << QStringList{"comboBox_IFaceType=wlan0  Wifi", "comboBox_DHCP=OFF", "lineEditIP=10.0.0.5",
                           "lineEditMask=255.0.0.0", "lineEditGw=10.0.0.1", "btn_wifi_ssid=Usine TOV 3",
                           "btn_wifi_key=cle secrete 42"}
            << kHead + "auto wlan0\nallow-hotplug wlan0\niface wlan0 inet static\n address 10.0.0.5\n"
                       " netmask 255.0.0.0\n gateway 10.0.0.1\n dns-nameservers 10.0.0.1\n"
                       " wpa-ssid Usine TOV 3\n wpa-psk cle secrete 42\n\n";
        QTest::newRow("wireless, open network")
            << QStringList{"comboBox_IFaceType=wlan0  Wifi", "btn_wifi_ssid=Atelier", "btn_wifi_key="}
            << kHead + "auto wlan0\nallow-hotplug wlan0\niface wlan0 inet dhcp\n wireless-mode managed\n"
                       " wireless-essid Atelier\n wireless-key off\n\n";
    }

    void apply()
    {
        QFETCH(QStringList, steps);
        QFETCH(QString, file);
        const std::string before = readText("/etc/network/interfaces");
        fNetworkConf form;
        form.show();
        QSignalSpy started(&form, &fNetworkConf::sigTestStart);
        QSignalSpy lines(&form, &fNetworkConf::sigNetDispMsg);
        for (const QString& step : steps)
            act(form, step);
        const time_t start = time(nullptr);
        ::apply(form);
        QCOMPARE(started.count(), 1);
        if (file.isEmpty()) {
            QCOMPARE(lines.count(), 0);
            QCOMPARE(unitJournal(), std::string());
            QCOMPARE(readText("/etc/network/interfaces"), before);
            return;
        }
        QVERIFY(time(nullptr) - start >= 10); // the unit's clock: the restart is given 10 s
        QCOMPARE(lines.count(), 1);
        QCOMPARE(lines[0][0].toString(), QString::fromUtf8("Reconfiguration du réseau réussi OK"));
        QCOMPARE(unitJournal(), kDownAndStop + "/etc/init.d/networking restart\n");
        QCOMPARE(QString::fromStdString(readText("/etc/network/interfaces")), file);

        // The same values again: only the start of the test.
        ::apply(form);
        QCOMPARE(started.count(), 2);
        QCOMPARE(lines.count(), 1);
        QCOMPARE(unitJournal(), kDownAndStop + "/etc/init.d/networking restart\n");
    }

    // The operator comes back to the form after a failed phase and corrects only the key.
    void aCorrectedKeyAloneIsApplied()
    {
        fNetworkConf form;
        form.show();
        act(form, "comboBox_IFaceType=wlan0  Wifi");
        ::apply(form);
        act(form, "btn_wifi_key=cle corrigee");
        tovtest::writeText("/run/tovsim/journal", "");
        ::apply(form);
        QCOMPARE(unitJournal(), kDownAndStop + "/etc/init.d/networking restart\n");
        QVERIFY(readText("/etc/network/interfaces").find("\n wpa-psk cle corrigee\n") != std::string::npos);
    }

    void aFailedWriteStillStartsTheTest()
    {
        fNetworkConf form;
        form.show();
        QSignalSpy started(&form, &fNetworkConf::sigTestStart);
        QSignalSpy lines(&form, &fNetworkConf::sigNetDispMsg);
        QCOMPARE(system("mount -o remount,ro /etc/network"), 0);
        act(form, "lineEditSftpSrvIP=192.0.2.99");
        ::apply(form);
        QCOMPARE(system("mount -o remount,rw /etc/network"), 0);
        QCOMPARE(lines.count(), 1);
        QCOMPARE(lines[0][0].toString(), QString::fromUtf8("ERREUR Reconfiguration du réseau"));
        QCOMPARE(started.count(), 1);
        // The network stays stopped: no restart with the old file.
        QCOMPARE(unitJournal(), kDownAndStop);
    }

    void savedSettingsComeBackOnReload()
    {
        fNetworkConf form;
        form.show();
        for (const char* step : {"comboBox_DHCP=OFF", "lineEditIP=192.0.2.77", "lineEditSftpSrvIP=192.0.2.5"})
            act(form, step);
        ::apply(form);
        const fNetworkConf::Settings saved = form.settings();
        // The operator changes everything, then the form gets the saved setting back.
        for (const char* step : {"comboBox_DHCP=ON", "comboBox_IFaceType=wlan0  Wifi", "lineEditSftpSrvIP=10.9.9.9"})
            act(form, step);
        form.setSettings(saved);
        form.reLoadCfg();
        // Static addressing: the operator's address stays, not the live one.
        QCOMPARE(::screen(form).mid(4, 11),
                 (QStringList{"eth0 Ethernet*|wlan0  Wifi", "DHCP:", "OFF*|ON", "IP TOV:", "[192.0.2.77]", "Masque:",
                              "[255.255.255.0]", "Passerelle :", "[192.0.2.10]", "IP Serveur SFTP:", "[192.0.2.5]"}));
    }
};

int main(int argc, char** argv)
{
    const bool listing = argc > 1 && QByteArray(argv[1]) == "-functions";
    if (!listing && !tovtest::insideUnit(argv[0]))
        return 2;
    QApplication app(argc, argv);
    TestNetworkForm test;
    return QTest::qExec(&test, argc, argv);
}

#include "unit_fnetworkconf.moc"
