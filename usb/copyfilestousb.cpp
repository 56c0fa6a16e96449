#include "usb/copyfilestousb.h"

#include "ui_copyfilestousb.h"
#include "utils/fileops.h"
#include "utils/systemops.h"

#include <QFileDialog>

#include <unistd.h>

namespace {

const char* const kStickDevice = "/dev/usbDISK";
const char* const kStickFolder = "/media/usb_drive/";
const char* const kDefaultDestination = "/home/TOV/";
const char* const kNetworkDestination = "/etc/network/";

struct RestoredFile {
    const char* name;
    bool fullPath; // the entry holds the whole path instead of the bare name
};

// The last two entries hold full paths, so their cp lines repeat the folder and never match
// "interfaces": kept on purpose, this is what units in the field have always received.
const RestoredFile kFiles[] = {
    {"moy.msr", false},         {"config.conf", false}, {"journal.log", false},
    {"fluides.quorvin", true},  {"interfaces", true},
};

} // namespace

CopyFilesToUSB::CopyFilesToUSB(QWidget* parent)
    : QWidget(parent)
    , ui(new Ui::CopyFilesToUSB)
{
    ui->setupUi(this);
    ui->progressBar_copy->setStyleSheet(
        "QProgressBar {border: 2px solid grey;border-radius: 5px;}\n"
        "QProgressBar::chunk {background-color: #18d45c;width: 20px;}");
    ui->progressBar_copy->setValue(0);

    connect(ui->pB_RestoreFromUsb, &QPushButton::released, this, &CopyFilesToUSB::On_RestoreFilesFromUsb);
    connect(ui->pB_QuitUsb, &QPushButton::released, this, &CopyFilesToUSB::On_btnQuit);
    connect(this, &CopyFilesToUSB::sig_ChangePercent, this, &CopyFilesToUSB::On_ChangePercent);

    if (!checkStick())
        ui->label_msg->setText(tr("Veuillez brancher votre dongle USB SVP !\n"));
}

CopyFilesToUSB::~CopyFilesToUSB()
{
    delete ui;
}

bool CopyFilesToUSB::checkStick()
{
    m_stickPresent = tovFileExist(kStickDevice);
    return m_stickPresent;
}

void CopyFilesToUSB::On_btnQuit()
{
    emit sig_usbExit();
}

void CopyFilesToUSB::On_ChangePercent(long maximum, long minimum, long value)
{
    ui->progressBar_copy->setMaximum(static_cast<int>(maximum));
    ui->progressBar_copy->setMinimum(static_cast<int>(minimum));
    ui->progressBar_copy->setValue(static_cast<int>(value));
}

void CopyFilesToUSB::On_RestoreFilesFromUsb()
{
    if (!checkStick()) {
        ui->pB_RestoreFromUsb->setVisible(true);
        ui->pB_QuitUsb->setVisible(true);
        ui->label_msg->setText(tr("Veuillez brancher votre dongle USB SVP !\n"));
        return;
    }
    m_folder = QFileDialog::getExistingDirectory(
        this, tr("Veuillez selectionner le Dossier USB Restauration fichiers sauvegardes"), kStickFolder,
        QFileDialog::ShowDirsOnly | QFileDialog::DontResolveSymlinks);
    if (!m_folder.isEmpty()) {
        // The operator does not get the buttons back: the page is left by the end of the bench.
        ui->pB_RestoreFromUsb->hide();
        ui->pB_QuitUsb->hide();
        m_folder += "/";
        collectEntries();
        copyEntries();
    }
    m_entries.clear();
}

void CopyFilesToUSB::collectEntries()
{
    const std::string folder = m_folder.toLocal8Bit().toStdString();
    for (const RestoredFile& file : kFiles) {
        const std::string path = folder + file.name;
        if (tovFileExist(path))
            m_entries.push_back(file.fullPath ? path : std::string(file.name));
    }
}

void CopyFilesToUSB::copyEntries()
{
    const long count = static_cast<long>(m_entries.size());
    ui->label_msg->setText(tr("Nombre de fichier(s) a Restaurer: %1\n").arg(count));
    const std::string folder = m_folder.toLocal8Bit().toStdString();
    for (long i = 0; i < count; ++i) {
        const std::string& entry = m_entries[static_cast<size_t>(i)];
        ui->label_msg->setText(tr("Restauration du fichier: %1").arg(QString::fromLocal8Bit(entry.c_str())));
        const char* destination = entry == "interfaces" ? kNetworkDestination : kDefaultDestination;
        systemCommand("cp " + folder + entry + " " + destination);
        emit sig_ChangePercent(count - 1, 0, i);
    }
    ui->label_msg->setText(tr("Restauration %1 fichier(s) terminée.").arg(count));
    // The copies must reach storage before the operator pulls the stick or restarts the unit.
    sync();
}
