// The page on which the operator brings a customer's saved configuration back from a USB stick
// before the unit leaves the bench. The stick is mounted by the system; this page only checks for
// it, lets the operator choose the backup folder and copies a fixed set of files with cp.
#ifndef TOV_USB_COPYFILESTOUSB_H
#define TOV_USB_COPYFILESTOUSB_H

#include <QString>
#include <QWidget>

#include <string>
#include <vector>

namespace Ui {
class CopyFilesToUSB;
}

class CopyFilesToUSB : public QWidget {
    Q_OBJECT

public:
    explicit CopyFilesToUSB(QWidget* parent = nullptr);
    ~CopyFilesToUSB() override;

signals:
    void sig_usbExit();
    void sig_ChangePercent(long, long, long);

public slots:
    void On_RestoreFilesFromUsb();
    void On_btnQuit();
    void On_ChangePercent(long, long, long);

private:
    bool checkStick();
    void collectEntries();
    void copyEntries();

    Ui::CopyFilesToUSB* ui;
    std::vector<std::string> m_entries;
    bool m_stickPresent = false;
    QString m_folder;
};

#endif
