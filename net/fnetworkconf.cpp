#include "net/fnetworkconf.h"

#include "net/ifaceops.h"
#include "net/interfacesfile.h"
#include "tovconfig.h"
#include "ui_fnetworkconf.h"

#include <QRegularExpression>
#include <QStringList>

namespace {
const char* const kDefaultSsid = "quorvin_wifi";
const char* const kDefaultKey = "5820174639936471028514";
} // namespace

fNetworkConf::fNetworkConf(QWidget* parent)
    : QWidget(parent)
    , ui(new Ui::fNetworkConf)
{
    ui->setupUi(this);
    ui->comboBox_IFaceType->addItem(QStringLiteral("eth0 Ethernet"));
    ui->comboBox_IFaceType->addItem(QStringLiteral("wlan0  Wifi"));
    ui->comboBox_DHCP->addItem(QStringLiteral("OFF"));
    ui->comboBox_DHCP->addItem(QStringLiteral("ON"));
    ui->checkBox_usbRestore->setChecked(m_restore);

    connect(ui->comboBox_DHCP, QOverload<int>::of(&QComboBox::currentIndexChanged), this, &fNetworkConf::onSet_DHCP);
    connect(ui->pB_ApllyNetworkConf, &QPushButton::clicked, this, &fNetworkConf::OnApplyNetConf);
    connect(ui->checkBox_usbRestore, &QCheckBox::toggled, this, &fNetworkConf::onRestoreCfgEnab);
    connect(ui->comboBox_IFaceType, QOverload<int>::of(&QComboBox::currentIndexChanged), this,
            &fNetworkConf::onSet_iFaceType);

    // On a touch screen the buttons beside the edits are where the operator taps to type there.
    connect(ui->btn_wifi_ssid, &QPushButton::clicked, ui->lE_wifi_ssid, [this]() { ui->lE_wifi_ssid->setFocus(); });
    connect(ui->btn_wifi_key, &QPushButton::clicked, ui->lE_wifi_cryptKey,
            [this]() { ui->lE_wifi_cryptKey->setFocus(); });
    connect(ui->btnGW_2, &QPushButton::clicked, ui->lE_MAC_0, [this]() { ui->lE_MAC_0->setFocus(); });

    initLoadCfg();
}

fNetworkConf::~fNetworkConf()
{
    delete ui;
}

fNetworkConf::Settings fNetworkConf::settings() const
{
    Settings s;
    s.interfaceType = m_interfaceType;
    s.interfaceName = m_interfaceName;
    s.address = m_address;
    s.netmask = m_netmask;
    s.gateway = m_gateway;
    s.mac = m_mac;
    s.sftpServer = m_sftpServer;
    s.dhcp = m_dhcp;
    s.ssid = m_ssid;
    s.key = m_key;
    s.restore = m_restore;
    return s;
}

void fNetworkConf::setSettings(const Settings& saved)
{
    m_interfaceType = saved.interfaceType;
    m_interfaceName = saved.interfaceName;
    m_address = saved.address;
    m_netmask = saved.netmask;
    m_gateway = saved.gateway;
    m_mac = saved.mac;
    m_sftpServer = saved.sftpServer;
    m_dhcp = saved.dhcp;
    m_ssid = saved.ssid;
    m_key = saved.key;
    m_restore = saved.restore;
}

void fNetworkConf::readLiveAddresses()
{
    const std::string name = m_interfaceName.isEmpty() ? std::string("eth0") : m_interfaceName.toStdString();
    m_address = QString::fromStdString(if_getKernel_IfaceInfo(name, 0));
    m_netmask = QString::fromStdString(if_getKernel_IfaceInfo(name, 1));
    m_gateway = QString::fromStdString(if_getKernel_IfaceInfo(name, 2));
}

void fNetworkConf::showStoredTexts()
{
    ui->lineEditSftpSrvIP->setText(m_sftpServer);
    ui->lineEditIP->setText(m_address);
    ui->lineEditMask->setText(m_netmask);
    ui->lineEditGw->setText(m_gateway);
    ui->lE_wifi_ssid->setText(m_ssid);
    ui->lE_wifi_cryptKey->setText(m_key);
}

void fNetworkConf::initLoadCfg()
{
    m_sftpServer = QStringLiteral(TOV_DEFAULT_SERVER_ADDRESS);
    m_mac = QString::fromStdString(get_iface_macAddr("eth0"));
    m_interfaceName = QStringLiteral("eth0");
    readLiveAddresses();
    m_ssid = QString::fromLatin1(kDefaultSsid);
    m_key = QString::fromLatin1(kDefaultKey);
    onSet_iFaceType(m_interfaceType);
    onSet_DHCP(m_dhcp);
    showStoredTexts();

    const QStringList parts = m_mac.split(QRegularExpression(QStringLiteral(":")));
    if (parts.size() == 6) {
        QLineEdit* fields[] = {ui->lE_MAC_0, ui->lE_MAC_1, ui->lE_MAC_2, ui->lE_MAC_3, ui->lE_MAC_4, ui->lE_MAC_5};
        for (int i = 0; i < 6; ++i)
            fields[i]->setText(parts[i]);
    }
}

void fNetworkConf::reLoadCfg()
{
    ui->lineEditSftpSrvIP->setText(m_sftpServer);
    onSet_iFaceType(m_interfaceType);
    onSet_DHCP(m_dhcp);
    // With DHCP the addresses may have changed since; static ones stay as the operator set them.
    if (m_dhcp == 1)
        readLiveAddresses();
    showStoredTexts();
}

void fNetworkConf::onSet_iFaceType(int iFaceType)
{
    if (iFaceType == 0) {
        m_interfaceType = 0;
        m_interfaceName = QStringLiteral("eth0");
        ui->btn_wifi_ssid->hide();
        ui->lE_wifi_ssid->hide();
        ui->btn_wifi_key->hide();
        ui->lE_wifi_cryptKey->hide();
    } else if (iFaceType == 1) {
        m_interfaceType = 1;
        m_interfaceName = QStringLiteral("wlan0");
        ui->btn_wifi_ssid->show();
        ui->lE_wifi_ssid->show();
        ui->btn_wifi_key->show();
        ui->lE_wifi_cryptKey->show();
        ui->lE_wifi_ssid->setEnabled(true);
        ui->lE_wifi_cryptKey->setEnabled(true);
        ui->lE_wifi_ssid->setText(m_ssid);
        ui->lE_wifi_cryptKey->setText(m_key);
    }
    ui->comboBox_IFaceType->setCurrentIndex(m_interfaceType);
}

void fNetworkConf::onSet_DHCP(int _state)
{
    ui->comboBox_DHCP->setCurrentIndex(_state);
    m_dhcp = _state;
    if (_state == 0 || _state == 1) {
        const bool editable = _state == 0;
        ui->lineEditIP->setEnabled(editable);
        ui->lineEditMask->setEnabled(editable);
        ui->lineEditGw->setEnabled(editable);
    }
}

void fNetworkConf::onRestoreCfgEnab(bool checked)
{
    m_restore = checked;
}

bool fNetworkConf::editsMatchStored() const
{
    return m_interfaceType == m_appliedInterfaceType && m_dhcp == m_appliedDhcp &&
           ui->lineEditIP->text() == m_address && ui->lineEditMask->text() == m_netmask &&
           ui->lineEditGw->text() == m_gateway && ui->lineEditSftpSrvIP->text() == m_sftpServer &&
           ui->lE_wifi_ssid->text() == m_ssid && ui->lE_wifi_cryptKey->text() == m_key;
}

void fNetworkConf::OnApplyNetConf()
{
    if (editsMatchStored()) {
        emit sigTestStart();
        return;
    }
    m_appliedInterfaceType = m_interfaceType;
    m_appliedDhcp = m_dhcp;
    m_address = ui->lineEditIP->text();
    m_netmask = ui->lineEditMask->text();
    m_gateway = ui->lineEditGw->text();
    m_sftpServer = ui->lineEditSftpSrvIP->text();
    m_ssid = ui->lE_wifi_ssid->text();
    m_key = ui->lE_wifi_cryptKey->text();
    // Blocks for the network restart, ten seconds at least.
    const int done = reconfigureNetwork(m_interfaceName.toStdString(), m_dhcp, m_address.toStdString(),
                                        m_netmask.toStdString(), m_gateway.toStdString(), m_ssid.toStdString(),
                                        m_key.toStdString());
    if (done == 1)
        emit sigNetDispMsg(tr("Reconfiguration du réseau réussi OK"));
    else
        emit sigNetDispMsg(tr("ERREUR Reconfiguration du réseau"));
    emit sigTestStart();
}
