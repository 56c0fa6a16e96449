// The network form in a simulated unit: its edits show eth0's live values, an apply reconfigures
// the unit's network only when something changed, and the test is asked to start in every case.
// The unit's eth0 is 192.0.2.2/24 with its gateway at 192.0.2.10; its clock runs ten times
// faster (see CMakeLists.txt), so a network restart takes one second.
#include "net/fnetworkconf.h"

#include "testfiles.h"

#include <QApplication>
#include <QComboBox>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QtTest>

#include <cstdlib>

using tovtest::readText;
using tovtest::unitJournal;
using tovtest::writeText;

namespace {

const std::string kRestart = "/sbin/ifconfig wlan0 down\n"
                             "/sbin/ifconfig eth0 down\n"
                             "/etc/init.d/networking stop\n"
                             "/etc/init.d/networking restart\n";

template <typename T>
T* child(fNetworkConf& form, const char* name)
{
    T* widget = form.findChild<T*>(name);
    if (widget == nullptr)
        qFatal("no %s in the form", name);
    return widget;
}

QLineEdit* edit(fNetworkConf& form, const char* name) { return child<QLineEdit>(form, name); }

QString macOfEth0()
{
    return QString::fromStdString(readText("/sys/class/net/eth0/address")).trimmed().toUpper();
}

QStringList macFields(fNetworkConf& form)
{
    QStringList fields;
    for (const char* name : {"lE_MAC_0", "lE_MAC_1", "lE_MAC_2", "lE_MAC_3", "lE_MAC_4", "lE_MAC_5"})
        fields << edit(form, name)->text();
    return fields;
}

void replaceText(QLineEdit* line, const QString& text)
{
    line->selectAll();
    QTest::keyClicks(line, text);
}

void apply(fNetworkConf& form)
{
    QTest::mouseClick(child<QPushButton>(form, "pB_ApllyNetworkConf"), Qt::LeftButton);
}

} // namespace

class TestNetworkForm : public QObject {
    Q_OBJECT

private slots:
    void init() { writeText("/run/tovsim/journal", ""); }

    void startsWithLiveEthernetValuesAndDefaults()
    {
        fNetworkConf form;
        form.show();
        QCOMPARE(form.objectName(), QString("fNetworkConf"));
        QCOMPARE(edit(form, "lineEditIP")->text(), QString("192.0.2.2"));
        QCOMPARE(edit(form, "lineEditMask")->text(), QString("255.255.255.0"));
        QCOMPARE(edit(form, "lineEditGw")->text(), QString("192.0.2.10"));
        QCOMPARE(edit(form, "lineEditSftpSrvIP")->text(), QString("192.0.2.10"));
        QCOMPARE(edit(form, "lineEditIP")->inputMask(), QString());
        QCOMPARE(macFields(form), macOfEth0().split(':'));

        auto* type = child<QComboBox>(form, "comboBox_IFaceType");
        QCOMPARE(type->count(), 2);
        QCOMPARE(type->itemText(0), QString("eth0 Ethernet"));
        QCOMPARE(type->itemText(1), QString("wlan0  Wifi"));
        QCOMPARE(type->currentIndex(), 0);
        auto* dhcp = child<QComboBox>(form, "comboBox_DHCP");
        QCOMPARE(dhcp->currentText(), QString("ON"));
        // DHCP on: the addresses come from the network, not from the operator.
        QVERIFY(!edit(form, "lineEditIP")->isEnabled());
        QVERIFY(!edit(form, "lineEditMask")->isEnabled());
        QVERIFY(!edit(form, "lineEditGw")->isEnabled());
        QVERIFY(edit(form, "lE_wifi_ssid")->isHidden());
        QVERIFY(child<QPushButton>(form, "btn_wifi_key")->isHidden());

        const fNetworkConf::Settings s = form.settings();
        QCOMPARE(s.interfaceName, QString("eth0"));
        QCOMPARE(s.ssid, QString("quorvin_wifi"));
        QCOMPARE(s.key, QString("5820174639936471028514"));
        QVERIFY(!s.restore);
    }

    void aFirstApplyWithNothingTouchedOnlyStartsTheTest()
    {
        fNetworkConf form;
        form.show();
        QSignalSpy started(&form, &fNetworkConf::sigTestStart);
        QSignalSpy lines(&form, &fNetworkConf::sigNetDispMsg);
        apply(form);
        QCOMPARE(started.count(), 1);
        QCOMPARE(lines.count(), 0);
        QCOMPARE(unitJournal(), std::string());
    }

    void changedValuesReconfigureOnceThenTheSameValuesOnlyStart()
    {
        fNetworkConf form;
        form.show();
        QSignalSpy started(&form, &fNetworkConf::sigTestStart);
        QSignalSpy lines(&form, &fNetworkConf::sigNetDispMsg);
        child<QComboBox>(form, "comboBox_DHCP")->setCurrentIndex(0);
        QVERIFY(edit(form, "lineEditIP")->isEnabled());
        replaceText(edit(form, "lineEditIP"), "192.0.2.77");
        replaceText(edit(form, "lineEditMask"), "255.255.255.128");
        apply(form);
        QCOMPARE(lines.count(), 1);
        QCOMPARE(lines[0][0].toString(), QString::fromUtf8("Reconfiguration du réseau réussi OK"));
        QCOMPARE(started.count(), 1);
        QCOMPARE(unitJournal(), kRestart);
        QCOMPARE(readText("/etc/network/interfaces"), std::string("# interfaces(5) file used by ifup(8) and ifdown(8)\n"
                                                                   "auto lo\n"
                                                                   "iface lo inet loopback\n"
                                                                   "\n"
                                                                   "auto eth0\n"
                                                                   "allow-hotplug eth0\n"
                                                                   "iface eth0 inet static\n"
                                                                   " address 192.0.2.77\n"
                                                                   " netmask 255.255.255.128\n"
                                                                   " gateway 192.0.2.10\n"
                                                                   " dns-nameservers 192.0.2.10\n"
                                                                   "\n"));
        QCOMPARE(form.settings().address, QString("192.0.2.77"));

        apply(form);
        QCOMPARE(started.count(), 2);
        QCOMPARE(lines.count(), 1);
        QCOMPARE(unitJournal(), kRestart);
    }

    void wirelessShowsItsFieldsWithTheDefaults()
    {
        fNetworkConf form;
        form.show();
        child<QComboBox>(form, "comboBox_IFaceType")->setCurrentIndex(1);
        QVERIFY(edit(form, "lE_wifi_ssid")->isVisible());
        QVERIFY(edit(form, "lE_wifi_cryptKey")->isVisible());
        QVERIFY(child<QPushButton>(form, "btn_wifi_ssid")->isVisible());
        QCOMPARE(edit(form, "lE_wifi_ssid")->text(), QString("quorvin_wifi"));
        QCOMPARE(edit(form, "lE_wifi_cryptKey")->text(), QString("5820174639936471028514"));
        QCOMPARE(form.settings().interfaceName, QString("wlan0"));

        child<QComboBox>(form, "comboBox_IFaceType")->setCurrentIndex(0);
        QVERIFY(edit(form, "lE_wifi_ssid")->isHidden());
        QCOMPARE(form.settings().interfaceName, QString("eth0"));
    }

    void aFailedWriteStillStartsTheTest()
    {
        fNetworkConf form;
        form.show();
        QSignalSpy started(&form, &fNetworkConf::sigTestStart);
        QSignalSpy lines(&form, &fNetworkConf::sigNetDispMsg);
        QCOMPARE(system("mount -o remount,ro /etc/network"), 0);
        replaceText(edit(form, "lineEditSftpSrvIP"), "192.0.2.99");
        apply(form);
        QCOMPARE(system("mount -o remount,rw /etc/network"), 0);
        QCOMPARE(lines.count(), 1);
        QCOMPARE(lines[0][0].toString(), QString("ERREUR Reconfiguration du réseau"));
        QCOMPARE(started.count(), 1);
        QCOMPARE(form.settings().sftpServer, QString("192.0.2.99"));
    }

    void savedSettingsComeBackOnReload()
    {
        fNetworkConf form;
        form.show();
        child<QComboBox>(form, "comboBox_DHCP")->setCurrentIndex(0);
        replaceText(edit(form, "lineEditIP"), "192.0.2.77");
        replaceText(edit(form, "lineEditSftpSrvIP"), "192.0.2.5");
        apply(form);
        const fNetworkConf::Settings saved = form.settings();

        // The operator changes everything, then the form gets the saved setting back.
        child<QComboBox>(form, "comboBox_DHCP")->setCurrentIndex(1);
        child<QComboBox>(form, "comboBox_IFaceType")->setCurrentIndex(1);
        replaceText(edit(form, "lineEditSftpSrvIP"), "10.9.9.9");
        form.setSettings(saved);
        form.reLoadCfg();
        QCOMPARE(child<QComboBox>(form, "comboBox_DHCP")->currentIndex(), 0);
        QCOMPARE(child<QComboBox>(form, "comboBox_IFaceType")->currentIndex(), 0);
        QCOMPARE(edit(form, "lineEditSftpSrvIP")->text(), QString("192.0.2.5"));
        // Static addressing: the operator's address stays, not the live one.
        QCOMPARE(edit(form, "lineEditIP")->text(), QString("192.0.2.77"));
        QVERIFY(edit(form, "lineEditIP")->isEnabled());
    }

    void anEthernetWithoutAddressShowsZeros()
    {
        QCOMPARE(system("ip addr flush dev eth0"), 0);
        fNetworkConf form;
        QCOMPARE(edit(form, "lineEditIP")->text(), QString("0.0.0.0"));
        QCOMPARE(edit(form, "lineEditMask")->text(), QString("0.0.0.0"));
        QCOMPARE(edit(form, "lineEditGw")->text(), QString("0.0.0.0"));
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
