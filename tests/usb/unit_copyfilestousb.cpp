// The USB restore page in a simulated unit with a stick (sim/devices/stick) or without one. Every cp line
// the page runs is journaled by a cp wrapper that the cases put first on the PATH.
#include "usb/copyfilestousb.h"

#include "testfiles.h"

#include <QApplication>
#include <QFileDialog>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <dlfcn.h>
#include <sys/stat.h>

#include <map>

using tovtest::readText;
using tovtest::writeText;

namespace {

const char* const kCpJournal = "/run/tovsim/cp.journal";
const QString kTitle = "Restauration fichier CONFIG\nCLIENT depuis USB";
const QStringList kButtons = {"Terminer", "Restaurer Fichiers\ndepuis USB Dongle"};

QStringList gMessages;

// The texts the page shows, in reading order.
QStringList screen(CopyFilesToUSB& page)
{
    std::map<std::pair<int, int>, QString> seen;
    for (QWidget* w : page.findChildren<QWidget*>()) {
        auto* label = qobject_cast<QLabel*>(w);
        auto* button = qobject_cast<QPushButton*>(w);
        const QString text = label ? label->text() : button ? button->text() : QString();
        const QPoint at = w->mapTo(&page, QPoint(0, 0));
        if (!text.isEmpty() && w->isVisibleTo(&page))
            seen[{at.y() + w->height() / 2, at.x()}] = text;
    }
    QStringList texts;
    for (const auto& entry : seen)
        texts << entry.second;
    return texts;
}

// Answers the next modal folder chooser as the operator would (an empty folder cancels), and
// notes what it showed: its title, the folder it opened on, and its two options.
void answerChooser(const QString& folder, QString* seen)
{
    QTimer::singleShot(50, [folder, seen]() {
        auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (dialog == nullptr)
            return answerChooser(folder, seen);
        *seen = QString("%1 | %2 | %3 %4").arg(dialog->windowTitle(), dialog->directory().absolutePath())
                    .arg(dialog->testOption(QFileDialog::ShowDirsOnly))
                    .arg(dialog->testOption(QFileDialog::DontResolveSymlinks));
        if (folder.isEmpty())
            return dialog->reject();
        dialog->setDirectory(folder);
        QMetaObject::invokeMethod(dialog, "accept");
    });
}

} // namespace

// Every text the message line takes, heard as the page sets it: most are replaced before the
// screen is painted again, so no picture of it would show them. This definition stands first in
// the link, notes the text and hands the call on to Qt's own.
void QLabel::setText(const QString& text)
{
    using Real = void (*)(QLabel*, const QString&);
    static const auto real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "_ZN6QLabel7setTextERK7QString"));
    if (objectName() == "label_msg")
        gMessages << text;
    real(this, text);
}

class TestCopyFilesToUSB : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        writeText("/usr/local/bin/cp", std::string("#!/bin/sh\nprintf '%s\\n' \"cp $*\" >>") + kCpJournal +
                                           "\nexec /bin/cp \"$@\"\n");
        QCOMPARE(chmod("/usr/local/bin/cp", 0755), 0);
        writeText(kCpJournal, "");
    }

    // In a unit with no stick.
    void withoutStickNothingIsChosen()
    {
        CopyFilesToUSB page;
        page.show();
        const QString plugIn = "Veuillez brancher votre dongle USB SVP !\n";
        const QStringList shown = QStringList{kTitle, plugIn} + kButtons;
        QCOMPARE(screen(page), shown);
        gMessages.clear();
        QString chooser;
        answerChooser("/media/usb_drive", &chooser);
        QTest::mouseClick(page.findChild<QPushButton*>("pB_RestoreFromUsb"), Qt::LeftButton);
        QTest::qWait(200);
        QCOMPARE(chooser, QString());
        QCOMPARE(gMessages, QStringList(plugIn));
        QCOMPARE(screen(page), shown);
        QCOMPARE(readText(kCpJournal), std::string());

        QSignalSpy exit(&page, &CopyFilesToUSB::sig_usbExit);
        QTest::mouseClick(page.findChild<QPushButton*>("pB_QuitUsb"), Qt::LeftButton);
        QCOMPARE(exit.count(), 1);
    }

    // The cases below run in a unit with the sample stick of sim/devices/stick. A folder the operator
    // chooses (none: cancelled), the cp lines run, the progress signals (maximum, minimum, value)
    // and where the bar ends, and every text the message line took.
    void restore_data()
    {
        QTest::addColumn<QString>("folder");
        QTest::addColumn<QString>("cpLines");
        QTest::addColumn<QString>("progress");
        QTest::addColumn<QStringList>("messages");
        const QString full = "/media/usb_drive/backup_full/";
        QTest::newRow("full backup")
            << full
            << "cp " + full + "moy.msr /home/TOV/\ncp " + full + "config.conf /home/TOV/\ncp " + full +
                   "journal.log /home/TOV/\ncp " + full + full + "fluides.quorvin /home/TOV/\ncp " + full + full +
                   "interfaces /home/TOV/\n"
            << "4 0 0, 4 0 1, 4 0 2, 4 0 3, 4 0 4, bar 4/4"
            << QStringList{"Nombre de fichier(s) a Restaurer: 5\n", "Restauration du fichier: moy.msr",
                           "Restauration du fichier: config.conf", "Restauration du fichier: journal.log",
                           "Restauration du fichier: " + full + "fluides.quorvin",
                           "Restauration du fichier: " + full + "interfaces",
                           QString::fromUtf8("Restauration 5 fichier(s) terminée.")};
        QTest::newRow("only the configuration")
            << "/media/usb_drive/only_config/" << "cp /media/usb_drive/only_config/config.conf /home/TOV/\n"
            << "0 0 0, bar 0/0"
            << QStringList{"Nombre de fichier(s) a Restaurer: 1\n", "Restauration du fichier: config.conf",
                           QString::fromUtf8("Restauration 1 fichier(s) terminée.")};
        QTest::newRow("none of the files") << "/media/usb_drive/nothing_to_restore/" << "" << "bar 0/100"
            << QStringList{"Nombre de fichier(s) a Restaurer: 0\n",
                           QString::fromUtf8("Restauration 0 fichier(s) terminée.")};
        QTest::newRow("cancelled") << "" << "" << "bar 0/100" << QStringList();
    }

    void restore()
    {
        QFETCH(QString, folder);
        QFETCH(QString, cpLines);
        QFETCH(QString, progress);
        QFETCH(QStringList, messages);
        const std::string interfacesBefore = readText("/etc/network/interfaces");
        CopyFilesToUSB page;
        page.show();
        gMessages.clear();
        QSignalSpy percent(&page, &CopyFilesToUSB::sig_ChangePercent);
        QString chooser;
        answerChooser(folder, &chooser);
        QTest::mouseClick(page.findChild<QPushButton*>("pB_RestoreFromUsb"), Qt::LeftButton);

        QCOMPARE(chooser, QString("Veuillez selectionner le Dossier USB Restauration fichiers sauvegardes | "
                                  "/media/usb_drive | 1 1"));
        QCOMPARE(QString::fromStdString(readText(kCpJournal)), cpLines);
        QString signalled;
        for (const QList<QVariant>& args : percent)
            signalled += QString("%1 %2 %3, ").arg(args[0].toLongLong()).arg(args[1].toLongLong()).arg(args[2].toLongLong());
        auto* bar = page.findChild<QProgressBar*>("progressBar_copy");
        QCOMPARE(signalled + QString("bar %1/%2").arg(bar->value()).arg(bar->maximum()), progress);
        QCOMPARE(gMessages, messages);
        // The operator does not get the buttons back once a folder was chosen.
        QCOMPARE(screen(page), QStringList(kTitle) + (folder.isEmpty() ? kButtons : QStringList(messages.mid(messages.size() - 1))));

        // What the cp lines reach: the files named bare; the full-path entries name no file.
        for (const char* name : {"moy.msr", "config.conf", "journal.log"})
            if (!folder.isEmpty() && QFile::exists(folder + name))
                QCOMPARE(readText(std::string("/home/TOV/") + name), readText((folder + name).toStdString()));
        QVERIFY(!QFile::exists("/home/TOV/fluides.quorvin") && !QFile::exists("/home/TOV/interfaces"));
        QCOMPARE(readText("/etc/network/interfaces"), interfacesBefore);
    }
};

int main(int argc, char** argv)
{
    const bool listing = argc > 1 && QByteArray(argv[1]) == "-functions";
    if (!listing && !tovtest::insideUnit(argv[0]))
        return 2;
    QApplication app(argc, argv);
    TestCopyFilesToUSB test;
    return QTest::qExec(&test, argc, argv);
}

#include "unit_copyfilestousb.moc"
