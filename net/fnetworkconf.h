// The page on which the operator sets the unit's network before the first test phase, chooses the
// USB restore at the end, and starts the test. Applying reconfigures the network only when
// something changed; the test starts whatever the outcome.
#ifndef TOV_NET_FNETWORKCONF_H
#define TOV_NET_FNETWORKCONF_H

#include <QString>
#include <QWidget>

namespace Ui {
class fNetworkConf;
}

class fNetworkConf : public QWidget {
    Q_OBJECT

public:
    // The whole setting, as the main window saves it at test start and puts it back after errors.
    struct Settings {
        int interfaceType = 0;
        QString interfaceName;
        QString address;
        QString netmask;
        QString gateway;
        QString mac;
        QString sftpServer;
        int dhcp = 1;
        QString ssid;
        QString key;
        bool restore = false;
    };

    explicit fNetworkConf(QWidget* parent = nullptr);
    ~fNetworkConf() override;

    Settings settings() const;
    // Puts a saved setting back into the stored fields; reLoadCfg() then shows it.
    void setSettings(const Settings& saved);

signals:
    void sigNetDispMsg(QString _result);
    void sigTestStart();

public slots:
    void initLoadCfg();
    void reLoadCfg();
    void OnApplyNetConf();
    void onSet_DHCP(int _state);
    void onRestoreCfgEnab(bool);
    void onSet_iFaceType(int iFaceType);

private:
    void showStoredTexts();
    void readLiveAddresses();
    bool editsMatchStored() const;

    int m_interfaceType = 0;
    QString m_interfaceName;
    QString m_address;
    QString m_netmask;
    QString m_gateway;
    QString m_mac;
    QString m_sftpServer;
    int m_dhcp = 1;
    QString m_ssid;
    QString m_key;
    bool m_restore = false;
    Ui::fNetworkConf* ui;
    int m_appliedInterfaceType = 0;
    int m_appliedDhcp = 1;
};

#endif
