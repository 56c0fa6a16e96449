// Whole runs of the test thread in a simulated unit, its result lines checked against the unit's
// real files. The units run at ten times clock speed (four where timing matters, see
// CMakeLists.txt), so one run takes about five seconds instead of fifty.
#include "autotest/cautotestthread.h"

#include "testfiles.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QStringList>

#include <sys/utsname.h>

#include <algorithm>
#include <fstream>
#include <ostream>
#include <string>
#include <vector>

// Lines show as text in failure messages.
void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

using tovtest::readText;
using tovtest::writeText;

namespace {

const char* const kMeasureFile = "/home/tov_test.msr";

struct RunRecord {
    QStringList lines;
    int errors = -1;
    int endSignals = 0;
    std::string measureFileWhenWritten; // as it stood when the write line was emitted
    qint64 msFromEndLineToSignal = -1;
};

// resetWhileRunning: the window's reset arrives from this thread once the run has started.
RunRecord runThread(bool resetState = false, bool resetWhileRunning = false)
{
    int argc = 1;
    char name[] = "unit_cautotestthread";
    char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);

    cAutoTestThread thread;
    thread.setServerAddress("192.0.2.10");
    if (resetState)
        thread.OnResetState(true);
    RunRecord run;
    QElapsedTimer sinceEndLine;
    // Direct connections: the slots run in the worker, at the moment of each emission.
    QObject::connect(&thread, &cAutoTestThread::sig_ThreadUpdText, [&](const QString& line) {
        run.lines << line;
        if (line.startsWith(QStringLiteral("Test écriture fichier")))
            run.measureFileWhenWritten = readText(kMeasureFile);
        if (line == QLatin1String("AutoTest Terminer!"))
            sinceEndLine.start();
    });
    QObject::connect(&thread, &cAutoTestThread::sig_ThreadEnd, [&](int errors) {
        run.errors = errors;
        ++run.endSignals;
        run.msFromEndLineToSignal = sinceEndLine.isValid() ? sinceEndLine.elapsed() : -1;
    });
    thread.start();
    if (resetWhileRunning)
        thread.OnResetState(true);
    thread.wait();
    return run;
}

std::string kernelRelease()
{
    struct utsname names;
    uname(&names);
    return names.release;
}

// The lines up to the storage stage, whose values depend on the unit's /home.
QStringList headLines(const QString& storageLine)
{
    return {QString::fromStdString("Kernel Version: " + kernelRelease()), "Composant ETHERNET: DM9000-A",
            storageLine};
}

int indexOf(const QStringList& lines, const QString& line)
{
    return static_cast<int>(lines.indexOf(line));
}

// The stage lines after the date, on a unit that passes everything: the server takes the file,
// the inputs rest (each reads 0) and a V2 module answers with the emulator's default values.
QStringList goodStageLines()
{
    return {
        "Dongle USB WIFI branché OK",
        "Réseau WIFI configuré OK",
        "Câble Réseau Ethernet branché/configuré OK",
        "Connection vers WATCHTOWER réussi, Internet port 22 OK",
        "Démarrage du test ECRITURE/LECTURE NAND",
        "Test écriture fichier TOV_TEST.MSR de 256 lignes contenant 256 valeurs",
        "Test Lecture fichier de 256 lignes OK",
        "Connection vers WATCHTOWER OK, Test TRANSFERT WATCHTOWER ...",
        "Fichier TOV_TEST.MSR transféré sur WATCHTOWER OK",
        "Librairie VITRANOL installée OK",
        "Test GPIO des sorties RELAIS et entrées TOR pour 40 secondes",
        "GPIO TOR MARCHE COMPRESSEUR= 0",
        "GPIO TOR MARCHE CENTRAL= 0",
        "GPIO TOR RESERVE= 0",
        "GPIO Relais ALARME NIVEAU BAS sur 0",
        "GPIO Relais ALARME INVERSEUR sur 0",
        "GPIO Relais ALIM BUS MODULES sur 0",
        "GPIO TOR DIPSWITCH_SW2_1= 0",
        "GPIO TOR DIPSWITCH_SW2_2= 0",
        "Modul MesureV2 version:2.5 Détecté OK",
        "Poids= 125.5, PR= 12.25, T_SOR= 35.75, T_ENT= 21.5, T_EXT= 8.5",
        "AutoTest Terminer!",
    };
}

// The lines between the first and the second given one, both excluded.
QStringList linesBetween(const QStringList& lines, const QString& first, const QString& last)
{
    const int from = indexOf(lines, first);
    const int to = indexOf(lines, last);
    if (from < 0 || to < from)
        return {"missing '" + first + "' or '" + last + "'"};
    return lines.mid(from + 1, to - from - 1);
}

const QString kRelayStage = QStringLiteral("Test GPIO des sorties RELAIS et entrées TOR pour 40 secondes");
const QString kEndLine = QStringLiteral("AutoTest Terminer!");

} // namespace

// Units of TestThread.*: every peer healthy (see CMakeLists.txt).
TEST(TestThread, RunOnAGoodUnit)
{
    const RunRecord run = runThread();
    ASSERT_EQ(run.endSignals, 1);
    ASSERT_GE(run.lines.size(), 5);

    EXPECT_EQ(run.lines.mid(0, 3), headLines("Espace de Stockage (libre/total): 64Mo/128Mo"));
    EXPECT_TRUE(QRegularExpression("^Date/Heure du TOV: \\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d$")
                    .match(run.lines[3])
                    .hasMatch())
        << run.lines[3].toStdString();
    EXPECT_EQ(run.lines.mid(4), goodStageLines());
    EXPECT_EQ(run.errors, 0);
    EXPECT_GE(run.msFromEndLineToSignal, 5000);
    // The file stays after the transfer, and the server holds the same bytes.
    const std::string local = readText(kMeasureFile);
    EXPECT_EQ(local.size(), run.measureFileWhenWritten.size());
    EXPECT_EQ(readText("/run/tovsim/watchtower/TOV/tests_tov/tov_test.msr"), local);
    // The relays were driven with the reserve input's level, in this order.
    const std::string journal = readText("/run/tovsim/gpio.journal");
    EXPECT_NE(journal.find("value 136 0\nvalue 138 0\nvalue 135 0\n"), std::string::npos) << journal;
}

TEST(TestThread, MeasurementFileHasKnownSizeAndContent)
{
    const RunRecord run = runThread();
    const std::string& text = run.measureFileWhenWritten;
    ASSERT_FALSE(text.empty());

    std::vector<std::string> lines;
    std::string::size_type start = 0, end;
    while ((end = text.find('\n', start)) != std::string::npos) {
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    EXPECT_EQ(start, text.size()) << "the file must end with a line feed";
    ASSERT_EQ(lines.size(), 256u);

    const QRegularExpression stamp("^\\d\\d/\\d\\d/\\d{4}_\\d\\d:\\d\\d:\\d\\d;");
    std::string group3;
    for (int i = 0; i < 256; ++i)
        group3 += "3;0.60;";
    const std::string& line3 = lines[3];
    ASSERT_TRUE(stamp.match(QString::fromStdString(line3)).hasMatch()) << line3;
    EXPECT_EQ(line3.substr(20), "3;" + group3);

    std::string group255;
    for (int i = 0; i < 256; ++i)
        group255 += "255;51.00;";
    EXPECT_EQ(lines[255].substr(20), "255;" + group255);
    EXPECT_EQ(lines[0].substr(20, 9), "0;0;0.00;");
}

TEST(TestThread, EarlierMeasurementFileIsAppendedTo)
{
    writeText(kMeasureFile, "earlier transfer\n");
    const RunRecord run = runThread(/*resetState=*/true);
    const std::string& text = run.measureFileWhenWritten;
    EXPECT_EQ(text.rfind("earlier transfer\n", 0), 0u);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 257);
    EXPECT_GE(indexOf(run.lines, "Test Lecture fichier de 256 lignes OK"), 0);
    // The reset flag, set while the run went on, counts one more.
    EXPECT_EQ(run.errors, 1);
}

TEST(TestThread, ResetFromTheWindowDuringARunCountsOneMore)
{
    const RunRecord run = runThread(/*resetState=*/false, /*resetWhileRunning=*/true);
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_EQ(run.errors, 1);
}

TEST(TestThreadUpload, MeasurementFileReachesTheServer)
{
    writeText(kMeasureFile, "measurement\n");
    cAutoTestThread thread;
    thread.setServerAddress("192.0.2.10");
    EXPECT_NE(thread.Upload(kMeasureFile), 0);
    EXPECT_EQ(readText("/run/tovsim/watchtower/TOV/tests_tov/tov_test.msr"), "measurement\n");
    EXPECT_EQ(readText(kMeasureFile), "measurement\n");

    thread.setServerAddress("192.0.2.99");
    testing::internal::CaptureStdout();
    EXPECT_EQ(thread.Upload(kMeasureFile), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout().rfind("curl: error: ", 0), 0u);
}

// The three cases below run in units started with --home-used 44 / 45 and --no-refprop.
TEST(TestThreadUsed44NoLibrary, SmallUseOfStorageAndMissingLibraryFail)
{
    const RunRecord run = runThread();
    EXPECT_EQ(run.lines.mid(0, 3), headLines("Espace de Stockage (libre/total): 84Mo/128Mo"));
    EXPECT_EQ(run.lines.value(3), "ERREUR Espace de Stockage NAND Inutilisable");
    EXPECT_GE(indexOf(run.lines, "ERREUR librairie VITRANOL pas installée"), 0);
    EXPECT_LT(indexOf(run.lines, "Librairie VITRANOL installée OK"), 0);
    EXPECT_EQ(run.errors, 2);
}

TEST(TestThreadUsed45, StorageWithMoreThan44MBUsedPasses)
{
    const RunRecord run = runThread();
    EXPECT_EQ(run.lines.mid(0, 3), headLines("Espace de Stockage (libre/total): 83Mo/128Mo"));
    EXPECT_LT(indexOf(run.lines, "ERREUR Espace de Stockage NAND Inutilisable"), 0);
    EXPECT_EQ(run.errors, 0);
}

TEST(TestThreadFullHome, WriteFailureIsReportedAndCounted)
{
    // The bench's own files are there before /home fills up; the run must leave them alone.
    const std::string phase = "1\n0\n192.0.2.10\n";
    const std::string starter = "#!/bin/sh\nTOV_BIN_NAME=tov_test\n";
    writeText("/home/TOV/tov_test.cfg", phase);
    writeText("/home/TOV/tov_starter", starter);
    // Fill /home to the last page: the appends of the measurement file fail.
    writeText("/home/filler", "");
    const int status = system("cat /dev/zero > /home/filler 2>/dev/null");
    (void)status;
    const RunRecord run = runThread();
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_GE(indexOf(run.lines, "ERREUR Echec Test Ecriture fichier .msr"), 0);
    EXPECT_LT(indexOf(run.lines, "Test écriture fichier TOV_TEST.MSR de 256 lignes contenant 256 valeurs"), 0);
    EXPECT_EQ(run.lines.value(run.lines.size() - 1), kEndLine);
    EXPECT_GE(run.errors, 1);
    EXPECT_EQ(readText("/home/TOV/tov_test.cfg"), phase);
    EXPECT_EQ(readText("/home/TOV/tov_starter"), starter);
}

// Network scenarios: each suite runs in a unit with the cable, dongle or server it names.
TEST(TestThreadNoNetwork, DongleAndCableFailOnlyTheCableCountsAndNoTransfer)
{
    const RunRecord run = runThread();
    const QStringList expected = {
        "ERREUR Dongle USB WIFI NON branché/configuré, veuillez vérifier !",
        "ERREUR Câble Réseau Ethernet NON branché/configuré, veuillez vérifier !",
        "Démarrage du test ECRITURE/LECTURE NAND",
        "Test écriture fichier TOV_TEST.MSR de 256 lignes contenant 256 valeurs",
        "Test Lecture fichier de 256 lignes OK",
        "Librairie VITRANOL installée OK",
        kRelayStage,
    };
    EXPECT_EQ(run.lines.mid(4, expected.size()), expected);
    EXPECT_EQ(run.lines.mid(run.lines.size() - 2),
              QStringList({"ERREUR Aucun Modul MesureV1 ou V2 Détecté", kEndLine}));
    // Counted: the cable (no wireless either) and the missing module; not the dongle.
    EXPECT_EQ(run.errors, 2);
    // Without a connection the measurement file is not kept.
    EXPECT_FALSE(std::ifstream(kMeasureFile).good());
}

TEST(TestThreadWirelessOnly, CableErrorIsNotCountedAndTheServerIsTried)
{
    const RunRecord run = runThread();
    const QStringList expected = {
        "Dongle USB WIFI branché OK",
        "Réseau WIFI configuré OK",
        "ERREUR Câble Réseau Ethernet NON branché/configuré, veuillez vérifier !",
        "ERREUR Aucunne Connection vers WATCHTOWER, plus de tests réseaux",
        "Démarrage du test ECRITURE/LECTURE NAND",
    };
    EXPECT_EQ(run.lines.mid(4, expected.size()), expected);
    // Counted: the unreachable server only (this unit's module answers).
    EXPECT_EQ(run.errors, 1);
    EXPECT_FALSE(std::ifstream(kMeasureFile).good());
}

TEST(TestThreadServerDown, UnreachableServerCountsAndTheFileIsDropped)
{
    const RunRecord run = runThread();
    EXPECT_EQ(linesBetween(run.lines, "Câble Réseau Ethernet branché/configuré OK", "Librairie VITRANOL installée OK"),
              QStringList({"ERREUR Aucunne Connection vers WATCHTOWER, plus de tests réseaux",
                           "Démarrage du test ECRITURE/LECTURE NAND",
                           "Test écriture fichier TOV_TEST.MSR de 256 lignes contenant 256 valeurs",
                           "Test Lecture fichier de 256 lignes OK"}));
    EXPECT_EQ(run.errors, 1);
    EXPECT_FALSE(std::ifstream(kMeasureFile).good());
}

TEST(TestThreadUploadRefused, FailedTransferIsPrintedNotCountedAndTheFileStays)
{
    const RunRecord run = runThread();
    EXPECT_EQ(linesBetween(run.lines, "Test Lecture fichier de 256 lignes OK", "Librairie VITRANOL installée OK"),
              QStringList({"Connection vers WATCHTOWER OK, Test TRANSFERT WATCHTOWER ...",
                           "ERREUR transfert Fichier TOV_TEST.MSR sur WATCHTOWER"}));
    EXPECT_EQ(run.errors, 0);
    EXPECT_EQ(readText(kMeasureFile), run.measureFileWhenWritten);
}

// The reserve input goes active then idle again during the 40 seconds (gpio_reserve_script.txt).
TEST(TestThreadRelays, ReserveInputDrivesTheRelays)
{
    const RunRecord run = runThread();
    auto relays = [](const char* v) {
        return QStringList({QString("GPIO TOR RESERVE= ") + v, QString("GPIO Relais ALARME NIVEAU BAS sur ") + v,
                            QString("GPIO Relais ALARME INVERSEUR sur ") + v,
                            QString("GPIO Relais ALIM BUS MODULES sur ") + v});
    };
    QStringList expected = {"GPIO TOR MARCHE COMPRESSEUR= 0", "GPIO TOR MARCHE CENTRAL= 0"};
    expected << relays("0") << "GPIO TOR DIPSWITCH_SW2_1= 0" << "GPIO TOR DIPSWITCH_SW2_2= 0" << relays("1")
             << relays("0");
    EXPECT_EQ(linesBetween(run.lines, kRelayStage, "Modul MesureV2 version:2.5 Détecté OK"), expected);
    const std::string journal = readText("/run/tovsim/gpio.journal");
    EXPECT_NE(journal.find("input 202 0\nvalue 136 1\nvalue 138 1\nvalue 135 1\n"), std::string::npos) << journal;
    EXPECT_NE(journal.find("input 202 1\nvalue 136 0\nvalue 138 0\nvalue 135 0\n"), std::string::npos) << journal;
    EXPECT_EQ(run.errors, 0);
}

// Module scenarios: each suite runs with the module it names on the bus.
// The emulator's fields 00500,07410,06500,08000,12000: weight 500, temperatures n / 117 - 40,
// 12000 uA on the default 0-30 range gives 15.
TEST(TestThreadModuleV1, ValuesAreReportedAndV2IsNotTried)
{
    const RunRecord run = runThread();
    EXPECT_EQ(linesBetween(run.lines, "GPIO TOR DIPSWITCH_SW2_2= 0", kEndLine),
              QStringList({"Modul MesureV1 Détecté OK", "Poids= 500, PR= 15, T_SOR= 23.3333, T_ENT= 28.3761, T_EXT= 15.5556"}));
    EXPECT_EQ(run.errors, 0);
}

TEST(TestThreadModuleV1Silent, ExchangeFailureCountsOnce)
{
    const RunRecord run = runThread();
    EXPECT_EQ(linesBetween(run.lines, "GPIO TOR DIPSWITCH_SW2_2= 0", kEndLine),
              QStringList({"Modul MesureV1 Détecté OK", "ERREUR RS485 Modul MesureV1"}));
    EXPECT_EQ(run.errors, 1);
}

TEST(TestThreadModuleV2Faulty, FaultySensorsFourOfFiveCounted)
{
    const RunRecord run = runThread();
    EXPECT_EQ(linesBetween(run.lines, "GPIO TOR DIPSWITCH_SW2_2= 0", kEndLine),
              QStringList({"Modul MesureV2 version:2.5 Détecté OK",
                           "Poids= -999, PR= 999, T_SOR= 999, T_ENT= 999, T_EXT= 999",
                           "ERREUR Sonde PRESSION HP, veuillez vérifier!",
                           "ERREUR Sonde PT100 SORTIE, veuillez vérifier!",
                           "ERREUR Sonde PT100 ENTREE, veuillez vérifier!",
                           "ERREUR Sonde PT100 EXTERIEURE, veuillez vérifier!",
                           "ERREUR POIDS Jauge de Contrainte, veuillez vérifier!"}));
    EXPECT_EQ(run.errors, 4);
}

// Fault scenarios: a peer goes away or a piece of the board is missing; the run goes to its end.

// The server is killed while it takes the file: the failure is shown, not counted, and the
// measurement file stays as it was written. An earlier, large file makes the transfer last long
// enough to be cut: the file is appended to, and sent whole.
TEST(TestThreadServerKilled, UploadCutIsShownNotCountedAndTheFileStays)
{
    std::string earlier;
    for (int i = 0; i < 200000; ++i)
        earlier += "earlier measurement line of the previous phase " + std::to_string(i) + "\n";
    writeText(kMeasureFile, earlier);
    // As soon as the server opens the file it is receiving, every sshd of the unit is killed.
    const int status = system("sh -c 'while [ ! -e /run/tovsim/watchtower/TOV/tests_tov/tov_test.msr ];"
                              " do sleep 0.01; done; pkill -KILL -x sshd' >/dev/null 2>&1 &");
    ASSERT_EQ(status, 0);
    const RunRecord run = runThread();
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_EQ(linesBetween(run.lines, "Test Lecture fichier de 256 lignes OK", "Librairie VITRANOL installée OK"),
              QStringList({"Connection vers WATCHTOWER OK, Test TRANSFERT WATCHTOWER ...",
                           "ERREUR transfert Fichier TOV_TEST.MSR sur WATCHTOWER"}));
    EXPECT_EQ(run.lines.value(run.lines.size() - 1), kEndLine);
    EXPECT_EQ(run.errors, 0);
    const std::string local = readText(kMeasureFile);
    EXPECT_EQ(local, run.measureFileWhenWritten);
    EXPECT_EQ(local.rfind(earlier, 0), 0u);
    EXPECT_LT(readText("/run/tovsim/watchtower/TOV/tests_tov/tov_test.msr").size(), local.size());
}

// The module is unplugged in the middle of its answers: the stage reports it and the run ends.
TEST(TestThreadModuleV1Cut, ShortAnswerIsNoModule)
{
    const RunRecord run = runThread();
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_EQ(linesBetween(run.lines, "GPIO TOR DIPSWITCH_SW2_2= 0", kEndLine),
              QStringList({"ERREUR Aucun Modul MesureV1 ou V2 Détecté"}));
    EXPECT_EQ(run.errors, 1);
}

TEST(TestThreadModuleV2Cut, ShortAnswerIsNoModule)
{
    const RunRecord run = runThread();
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_EQ(linesBetween(run.lines, "GPIO TOR DIPSWITCH_SW2_2= 0", kEndLine),
              QStringList({"ERREUR Aucun Modul MesureV1 ou V2 Détecté"}));
    EXPECT_EQ(run.errors, 1);
}

// Without sysfs GPIO every pin reads -1, the value the loop starts from: no input line, no relay
// line, the 40 seconds still pass and nothing is counted.
TEST(TestThreadNoGpio, RelayStageShowsNothingAndTheRunGoesOn)
{
    const RunRecord run = runThread();
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_EQ(linesBetween(run.lines, kRelayStage, "Modul MesureV2 version:2.5 Détecté OK"), QStringList());
    EXPECT_EQ(run.lines.value(run.lines.size() - 1), kEndLine);
    EXPECT_EQ(run.errors, 0);
}

// Without /ramdisk the command captures come back empty: the kernel line has no release, the
// Ethernet line the unknown revision, and the run goes on.
TEST(TestThreadNoRamdisk, CapturesReadEmpty)
{
    const RunRecord run = runThread();
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_EQ(run.lines.value(0), "Kernel Version: ");
    EXPECT_EQ(run.lines.value(1), "Composant ETHERNET: DM9000-X");
    EXPECT_EQ(run.lines.value(run.lines.size() - 1), kEndLine);
}
