// The USB restore page in a simulated unit with a stick (sim/stick) or without one. Every cp
// line the page runs is journaled by a cp wrapper that the cases put first on the PATH.
#include "usb/copyfilestousb.h"

#include "testfiles.h"

#include <QApplication>
#include <QFileDialog>
#include <QLabel>
#include <QLayout>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

using tovtest::readText;
using tovtest::writeText;

namespace {

const char* const kCpJournal = "/run/tovsim/cp.journal";
const char* const kStickFolder = "/media/usb_drive";

void journalCpCalls()
{
    writeText("/usr/local/bin/cp", std::string("#!/bin/sh\nprintf '%s\\n' \"cp $*\" >>") + kCpJournal +
                                       "\nexec /bin/cp \"$@\"\n");
    QCOMPARE(chmod("/usr/local/bin/cp", 0755), 0);
    writeText(kCpJournal, "");
}

// What the operator does in the folder chooser, and what the chooser looked like.
struct Chooser {
    explicit Chooser(const QString& folder = QString())
        : choice(folder)
    {
    }
    QString choice; // empty: cancel
    QString title;
    QString startFolder;
    bool directoriesOnly = false;
    bool symlinksKept = false;
    int opened = 0;
};

// Answers the next modal folder chooser as the operator would.
void answerChooser(Chooser& chooser)
{
    QTimer::singleShot(50, [&chooser]() {
        auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (dialog == nullptr) {
            answerChooser(chooser);
            return;
        }
        ++chooser.opened;
        chooser.title = dialog->windowTitle();
        chooser.startFolder = dialog->directory().absolutePath();
        chooser.directoriesOnly = dialog->testOption(QFileDialog::ShowDirsOnly);
        chooser.symlinksKept = dialog->testOption(QFileDialog::DontResolveSymlinks);
        if (chooser.choice.isEmpty()) {
            dialog->reject();
            return;
        }
        dialog->setDirectory(chooser.choice);
        QMetaObject::invokeMethod(dialog, "accept");
    });
}

QString message(CopyFilesToUSB& page)
{
    return page.findChild<QLabel*>("label_msg")->text();
}

bool buttonsHidden(CopyFilesToUSB& page)
{
    return page.findChild<QPushButton*>("pB_RestoreFromUsb")->isHidden() &&
           page.findChild<QPushButton*>("pB_QuitUsb")->isHidden();
}

QList<QList<long>> progress(const QSignalSpy& spy)
{
    QList<QList<long>> values;
    for (const QList<QVariant>& args : spy)
        values << QList<long>{args[0].value<long>(), args[1].value<long>(), args[2].value<long>()};
    return values;
}

} // namespace

class TestCopyFilesToUSB : public QObject {
    Q_OBJECT

private slots:
    void init() { journalCpCalls(); }

    void formOfThePage()
    {
        CopyFilesToUSB page;
        QCOMPARE(page.windowTitle(), QString("Form"));
        auto* title = page.findChild<QLabel*>("label");
        QCOMPARE(title->text(), QString("Restauration fichier CONFIG\nCLIENT depuis USB"));
        QCOMPARE(title->font().pointSize(), 18);
        QCOMPARE(page.findChild<QLabel*>("label_msg")->font().pointSize(), 24);
        auto* quit = page.findChild<QPushButton*>("pB_QuitUsb");
        auto* restore = page.findChild<QPushButton*>("pB_RestoreFromUsb");
        QCOMPARE(quit->text(), QString("Terminer"));
        QCOMPARE(restore->text(), QString("Restaurer Fichiers\ndepuis USB Dongle"));
        for (QPushButton* b : {quit, restore}) {
            QCOMPARE(b->font().pointSize(), 16);
            QVERIFY(b->font().bold());
            QCOMPARE(b->minimumHeight(), 80);
        }
        auto* bar = page.findChild<QProgressBar*>("progressBar_copy");
        QCOMPARE(bar->value(), 0);
        QCOMPARE(bar->styleSheet(), QString("QProgressBar {border: 2px solid grey;border-radius: 5px;}\n"
                                            "QProgressBar::chunk {background-color: #18d45c;width: 20px;}"));
        for (const char* name : {"gridLayout", "verticalLayout", "horizontalLayout_2", "horizontalLayout"})
            QVERIFY2(page.findChild<QLayout*>(name) != nullptr, name);
    }

    void quitEndsThePage()
    {
        CopyFilesToUSB page;
        QSignalSpy exit(&page, &CopyFilesToUSB::sig_usbExit);
        QTest::mouseClick(page.findChild<QPushButton*>("pB_QuitUsb"), Qt::LeftButton);
        QCOMPARE(exit.count(), 1);
    }

    // In a unit with no stick.
    void withoutStickNothingIsChosen()
    {
        CopyFilesToUSB page;
        QCOMPARE(message(page), QString("Veuillez brancher votre dongle USB SVP !\n"));
        Chooser chooser;
        answerChooser(chooser);
        page.findChild<QLabel*>("label_msg")->clear();
        page.On_RestoreFilesFromUsb();
        QTest::qWait(200);
        QCOMPARE(chooser.opened, 0);
        QCOMPARE(message(page), QString("Veuillez brancher votre dongle USB SVP !\n"));
        QVERIFY(!page.findChild<QPushButton*>("pB_RestoreFromUsb")->isHidden());
        QVERIFY(!page.findChild<QPushButton*>("pB_QuitUsb")->isHidden());
        QCOMPARE(readText(kCpJournal), std::string());
    }

    // The cases below run in a unit with the sample stick of sim/stick.
    void fullBackupRestoresWhatTheCpLinesReach()
    {
        const std::string interfacesBefore = readText("/etc/network/interfaces");
        CopyFilesToUSB page;
        QCOMPARE(message(page), QString());
        QSignalSpy percent(&page, &CopyFilesToUSB::sig_ChangePercent);
        Chooser chooser(QString(kStickFolder) + "/backup_full");
        answerChooser(chooser);
        QTest::mouseClick(page.findChild<QPushButton*>("pB_RestoreFromUsb"), Qt::LeftButton);

        QCOMPARE(chooser.opened, 1);
        QCOMPARE(chooser.title, QString("Veuillez selectionner le Dossier USB Restauration fichiers sauvegardes"));
        QCOMPARE(chooser.startFolder, QString(kStickFolder));
        QVERIFY(chooser.directoriesOnly);
        QVERIFY(chooser.symlinksKept);

        const std::string folder = "/media/usb_drive/backup_full/";
        QCOMPARE(readText(kCpJournal),
                 "cp " + folder + "moy.msr /home/TOV/\n"
                 "cp " + folder + "config.conf /home/TOV/\n"
                 "cp " + folder + "journal.log /home/TOV/\n"
                 "cp " + folder + folder + "fluides.quorvin /home/TOV/\n"
                 "cp " + folder + folder + "interfaces /home/TOV/\n");
        QCOMPARE(readText("/home/TOV/config.conf"), std::string("site=Atelier 3\nmodule=V2\n"));
        QCOMPARE(readText("/home/TOV/moy.msr"), readText(folder + "moy.msr"));
        QCOMPARE(readText("/home/TOV/journal.log"), readText(folder + "journal.log"));
        // The full-path entries name no existing file: they are not restored, and the network
        // file is never touched.
        QVERIFY(access("/home/TOV/fluides.quorvin", F_OK) != 0);
        QVERIFY(access("/home/TOV/interfaces", F_OK) != 0);
        QCOMPARE(readText("/etc/network/interfaces"), interfacesBefore);

        QCOMPARE(progress(percent), (QList<QList<long>>{{4, 0, 0}, {4, 0, 1}, {4, 0, 2}, {4, 0, 3}, {4, 0, 4}}));
        auto* bar = page.findChild<QProgressBar*>("progressBar_copy");
        QCOMPARE(bar->maximum(), 4);
        QCOMPARE(bar->value(), 4);
        QCOMPARE(message(page), QString::fromUtf8("Restauration 5 fichier(s) terminée."));
        QVERIFY(buttonsHidden(page));
    }

    void folderWithOnlyTheConfiguration()
    {
        CopyFilesToUSB page;
        QSignalSpy percent(&page, &CopyFilesToUSB::sig_ChangePercent);
        Chooser chooser(QString(kStickFolder) + "/only_config");
        answerChooser(chooser);
        page.On_RestoreFilesFromUsb();
        QCOMPARE(readText(kCpJournal), std::string("cp /media/usb_drive/only_config/config.conf /home/TOV/\n"));
        QCOMPARE(readText("/home/TOV/config.conf"), std::string("site=Atelier 7\n"));
        QCOMPARE(progress(percent), (QList<QList<long>>{{0, 0, 0}}));
        QCOMPARE(message(page), QString::fromUtf8("Restauration 1 fichier(s) terminée."));
    }

    void folderWithNoneOfTheFiles()
    {
        CopyFilesToUSB page;
        QSignalSpy percent(&page, &CopyFilesToUSB::sig_ChangePercent);
        Chooser chooser(QString(kStickFolder) + "/nothing_to_restore");
        answerChooser(chooser);
        page.On_RestoreFilesFromUsb();
        QCOMPARE(readText(kCpJournal), std::string());
        QCOMPARE(percent.count(), 0);
        QCOMPARE(message(page), QString::fromUtf8("Restauration 0 fichier(s) terminée."));
        QVERIFY(buttonsHidden(page));
    }

    void cancelledChoiceChangesNothing()
    {
        CopyFilesToUSB page;
        Chooser chooser; // cancels
        answerChooser(chooser);
        page.On_RestoreFilesFromUsb();
        QCOMPARE(chooser.opened, 1);
        QCOMPARE(readText(kCpJournal), std::string());
        QCOMPARE(message(page), QString());
        QVERIFY(!page.findChild<QPushButton*>("pB_RestoreFromUsb")->isHidden());

        // A later restore starts from an empty list of entries.
        Chooser again(QString(kStickFolder) + "/only_config");
        answerChooser(again);
        page.On_RestoreFilesFromUsb();
        QCOMPARE(readText(kCpJournal), std::string("cp /media/usb_drive/only_config/config.conf /home/TOV/\n"));
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
