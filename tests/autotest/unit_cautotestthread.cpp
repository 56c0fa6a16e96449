// Whole runs of the test thread in a simulated unit, its result lines checked against the unit's
// real files. The units run at ten times clock speed (see CMakeLists.txt), so one run takes about
// five seconds instead of fifty.
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
#include <string>
#include <vector>

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

RunRecord runThread(bool resetState = false)
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

} // namespace

TEST(TestThread, RunOnAGoodUnitWithoutNetworkOrModule)
{
    const RunRecord run = runThread();
    ASSERT_EQ(run.endSignals, 1);
    ASSERT_GE(run.lines.size(), 5);

    EXPECT_EQ(run.lines.mid(0, 3), headLines("Espace de Stockage (libre/total): 64Mo/128Mo"));
    EXPECT_TRUE(QRegularExpression("^Date/Heure du TOV: \\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d$")
                    .match(run.lines[3])
                    .hasMatch())
        << run.lines[3].toStdString();
    const QStringList rest = run.lines.mid(4);
    const QStringList expected = {
        "ERREUR Dongle USB WIFI NON branché/configuré, veuillez vérifier !",
        "ERREUR Câble Réseau Ethernet NON branché/configuré, veuillez vérifier !",
        "Démarrage du test ECRITURE/LECTURE NAND",
        "Test écriture fichier TOV_TEST.MSR de 256 lignes contenant 256 valeurs",
        "Test Lecture fichier de 256 lignes OK",
        "Librairie VITRANOL installée OK",
        "Test GPIO des sorties RELAIS et entrées TOR pour 40 secondes",
        "ERREUR Aucun Modul MesureV1 ou V2 Détecté",
        "AutoTest Terminer!",
    };
    EXPECT_EQ(rest, expected);
    // Counted: the cable (no wireless either) and the missing module; not the dongle.
    EXPECT_EQ(run.errors, 2);
    EXPECT_GE(run.msFromEndLineToSignal, 5000);
    // Without a connection the measurement file is not kept.
    EXPECT_FALSE(std::ifstream(kMeasureFile).good());
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
    EXPECT_EQ(run.errors, 3);
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
    EXPECT_EQ(run.errors, 4);
}

TEST(TestThreadUsed45, StorageWithMoreThan44MBUsedPasses)
{
    const RunRecord run = runThread();
    EXPECT_EQ(run.lines.mid(0, 3), headLines("Espace de Stockage (libre/total): 83Mo/128Mo"));
    EXPECT_LT(indexOf(run.lines, "ERREUR Espace de Stockage NAND Inutilisable"), 0);
    EXPECT_EQ(run.errors, 2);
}

TEST(TestThreadFullHome, WriteFailureIsReportedAndCounted)
{
    // Fill /home to the last page: the appends of the measurement file fail.
    writeText("/home/filler", "");
    const int status = system("cat /dev/zero > /home/filler 2>/dev/null");
    (void)status;
    const RunRecord run = runThread();
    EXPECT_GE(indexOf(run.lines, "ERREUR Echec Test Ecriture fichier .msr"), 0);
    EXPECT_LT(indexOf(run.lines, "Test écriture fichier TOV_TEST.MSR de 256 lignes contenant 256 valeurs"), 0);
}
