// Whole runs of the test thread in simulated units, each with the peers CMakeLists.txt gives it:
// the result lines byte for byte, the error count, and what the run left in the unit's files and
// pins. Durations are taken on this process's clock, which is the unit's sped-up one: at four
// times speed the bounds below leave a loaded machine a second or two.
#include "autotest/cautotestthread.h"

#include "boardpins.h"
#include "gpiosim.h"
#include "testfiles.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QStringList>

#include <sys/utsname.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <ostream>
#include <string>
#include <thread>

// Lines show as text in failure messages.
void PrintTo(const QString& text, std::ostream* out)
{
    *out << '"' << text.toStdString() << '"';
}

using tovtest::readText;
using tovtest::writeText;

namespace {

const char* const kMeasureFile = "/home/tov_test.msr";
const char* const kServerCopy = "/run/tovsim/watchtower/TOV/tests_tov/tov_test.msr";
const QString kRelayStage = QStringLiteral("Test GPIO des sorties RELAIS et entrées TOR pour 40 secondes");
const QString kEndLine = QStringLiteral("AutoTest Terminer!");

struct RunRecord {
    QStringList lines;
    int errors = -1;
    int endSignals = 0;
    std::string measureFile;   // as it stood when its write line was emitted
    std::string pinsAtModule;  // the board's pins when the module stage showed its first line
    qint64 relayStageMs = -1;  // from the stage's line to the first pin released
    qint64 endDelayMs = -1;    // from the end line to the end signal
};

// onLine, when given, sees each line as it is emitted, in the worker, before the run goes on.
RunRecord runThread(bool resetWhileRunning = false, const std::function<void(const QString&)>& onLine = nullptr)
{
    int argc = 1;
    char name[] = "unit_cautotestthread";
    char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);

    cAutoTestThread thread;
    thread.setServerAddress("192.0.2.10");
    RunRecord run;
    QElapsedTimer clock;
    clock.start();
    std::atomic<int> relayStageAt{-1}; // ms; an int, lock-free on every board (ARMv5 has no 64-bit atomics)
    qint64 endLineAt = -1;
    // Direct connections: the slots run in the worker, at the moment of each emission.
    QObject::connect(&thread, &cAutoTestThread::sig_ThreadUpdText, [&](const QString& line) {
        if (line == kRelayStage)
            relayStageAt = static_cast<int>(clock.elapsed());
        if (line == kEndLine)
            endLineAt = clock.elapsed();
        if (line.startsWith(QStringLiteral("Test écriture fichier")))
            run.measureFile = readText(kMeasureFile);
        const bool moduleLine = line.startsWith("Modul Mesure") || line.startsWith("ERREUR Aucun Modul");
        if (moduleLine && run.pinsAtModule.empty())
            run.pinsAtModule = readText("/run/tovsim/gpio/state");
        run.lines << line;
        if (onLine)
            onLine(line);
    });
    QObject::connect(&thread, &cAutoTestThread::sig_ThreadEnd, [&](int errors) {
        run.errors = errors;
        ++run.endSignals;
        run.endDelayMs = clock.elapsed() - endLineAt;
    });
    // The relay stage ends when its first pin is released: watched beside the run. The run itself
    // is awaited without a time limit: the unit's clock library takes over timed condition waits,
    // and ThreadSanitizer would no longer see the run end before the test reads its record.
    std::atomic<bool> ended{false};
    std::thread watcher([&] {
        while (!ended && run.relayStageMs < 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (relayStageAt >= 0 && tovtest::gpioJournal().find("unexport") != std::string::npos)
                run.relayStageMs = clock.elapsed() - relayStageAt;
        }
    });
    thread.start();
    if (resetWhileRunning)
        thread.OnResetState(true);
    thread.wait();
    ended = true;
    watcher.join();
    return run;
}

// The lines after the first one starting with `after` ("": from the first line) and before the
// first later one starting with `before`.
QStringList linesBetween(const QStringList& lines, const QString& after, const QString& before)
{
    int from = 0;
    if (!after.isEmpty()) {
        while (from < lines.size() && !lines[from].startsWith(after))
            ++from;
        ++from;
    }
    int to = from;
    while (to < lines.size() && !lines[to].startsWith(before))
        ++to;
    if (from > lines.size() || to == lines.size())
        return {"no line '" + after + "' followed by '" + before + "'"};
    return lines.mid(from, to - from);
}

} // namespace

// Every peer healthy.
TEST(TestThread, RunOnAGoodUnit)
{
    const RunRecord run = runThread();
    ASSERT_EQ(run.endSignals, 1);
    struct utsname names;
    uname(&names);
    QStringList lines = run.lines;
    const QString date = lines.takeAt(3);
    EXPECT_TRUE(QRegularExpression("^Date/Heure du TOV: \\d\\d/\\d\\d/\\d{4} \\d\\d:\\d\\d:\\d\\d$").match(date).hasMatch());
    EXPECT_EQ(lines, QStringList({
                         QStringLiteral("Kernel Version: ") + names.release,
                         "Composant ETHERNET: DM9000-A",
                         "Espace de Stockage (libre/total): 64Mo/128Mo",
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
                         kRelayStage,
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
                         kEndLine,
                     }));
    EXPECT_EQ(run.errors, 0);
    EXPECT_GE(run.relayStageMs, 39500);
    EXPECT_LE(run.relayStageMs, 46000);
    EXPECT_GE(run.endDelayMs, 5000);
    EXPECT_LE(run.endDelayMs, 7500);
    // Every pin released, the relays left as driven, before the module is probed.
    EXPECT_EQ(run.pinsAtModule, "138 out 0\n135 out 0\n136 out 0\n230 out 0\n232 out 0\n"
                                "200 in 1\n201 in 1\n202 in 1\n41 in 1\n42 in 1\n");

    // The measurement file: 256 lines of a time stamp, the index, and 256 times the same group.
    const QStringList file = QString::fromStdString(run.measureFile).split('\n');
    ASSERT_EQ(file.size(), 257);
    EXPECT_EQ(file[256], "");
    const QRegularExpression stamp("^\\d\\d/\\d\\d/\\d{4}_\\d\\d:\\d\\d:\\d\\d;$");
    EXPECT_TRUE(stamp.match(file[3].left(20)).hasMatch()) << file[3].toStdString();
    EXPECT_EQ(file[3].mid(20), "3;" + QString("3;0.60;").repeated(256));
    EXPECT_EQ(file[255].mid(20), "255;" + QString("255;51.00;").repeated(256));
    EXPECT_EQ(file[0].mid(20, 9), "0;0;0.00;");
    // It stays after the transfer, and the server holds the same bytes.
    EXPECT_EQ(readText(kMeasureFile), run.measureFile);
    EXPECT_EQ(readText(kServerCopy), run.measureFile);
}

// A file left by an earlier transfer is appended to, and the window's reset during the run
// counts one more.
TEST(TestThread, EarlierFileIsAppendedToAndResetCountsOneMore)
{
    writeText(kMeasureFile, "earlier transfer\n");
    const RunRecord run = runThread(/*resetWhileRunning=*/true);
    EXPECT_EQ(run.measureFile.rfind("earlier transfer\n", 0), 0u);
    EXPECT_EQ(std::count(run.measureFile.begin(), run.measureFile.end(), '\n'), 257);
    EXPECT_TRUE(run.lines.contains("Test Lecture fichier de 256 lignes OK"));
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_EQ(run.errors, 1);
}

TEST(TestThread, FullHomeFailsTheWriteAndLeavesThePhaseFileAlone)
{
    writeText("/home/TOV/tov_test.cfg", "1\n0\n192.0.2.10\n");
    // Fill /home to the last page: the appends of the measurement file fail.
    const int status = system("cat /dev/zero > /home/filler 2>/dev/null");
    (void)status;
    const RunRecord run = runThread();
    EXPECT_EQ(linesBetween(run.lines, "Démarrage du test ECRITURE", "Test Lecture"),
              QStringList("ERREUR Echec Test Ecriture fichier .msr"));
    EXPECT_EQ(run.lines.value(run.lines.size() - 1), kEndLine);
    EXPECT_GE(run.errors, 1);
    EXPECT_EQ(readText("/home/TOV/tov_test.cfg"), "1\n0\n192.0.2.10\n");
}

// The server is killed while it takes the file: shown, not counted, and the file stays as written.
// An earlier, large file makes the transfer last long enough to be cut.
TEST(TestThread, ServerKilledDuringTheUpload)
{
    std::string earlier;
    for (int i = 0; i < 200000; ++i)
        earlier += "earlier measurement line of the previous phase " + std::to_string(i) + "\n";
    writeText(kMeasureFile, earlier);
    const int status = system("sh -c 'while [ ! -e /run/tovsim/watchtower/TOV/tests_tov/tov_test.msr ];"
                              " do sleep 0.01; done; pkill -KILL -x sshd' >/dev/null 2>&1 &");
    ASSERT_EQ(status, 0);
    const RunRecord run = runThread();
    EXPECT_EQ(linesBetween(run.lines, "Test Lecture fichier", "Librairie VITRANOL"),
              QStringList({"Connection vers WATCHTOWER OK, Test TRANSFERT WATCHTOWER ...",
                           "ERREUR transfert Fichier TOV_TEST.MSR sur WATCHTOWER"}));
    EXPECT_EQ(run.lines.value(run.lines.size() - 1), kEndLine);
    EXPECT_EQ(run.errors, 0);
    EXPECT_EQ(readText(kMeasureFile), run.measureFile);
    EXPECT_EQ(run.measureFile.rfind(earlier, 0), 0u);
    EXPECT_LT(readText(kServerCopy).size(), run.measureFile.size());
}

// One row per unit of the same name in CMakeLists.txt: the lines between two others, the count,
// and whether the measurement file is kept.
struct Row {
    const char* name;
    QString after;
    QString before;
    QStringList lines;
    int errors;
    bool fileKept;
};

class Scenario : public testing::TestWithParam<Row> {
};

TEST_P(Scenario, Run)
{
    const Row& row = GetParam();
    const RunRecord run = runThread();
    EXPECT_EQ(run.endSignals, 1);
    EXPECT_EQ(linesBetween(run.lines, row.after, row.before), row.lines);
    EXPECT_EQ(run.errors, row.errors);
    EXPECT_EQ(std::ifstream(kMeasureFile).good(), row.fileKept);
}

const QString kDate = QStringLiteral("Date/Heure du TOV: ");
const QString kLastInput = QStringLiteral("GPIO TOR DIPSWITCH_SW2_2= 0");
const QString kV2 = QStringLiteral("Modul MesureV2 version:2.5 Détecté OK");
const QStringList kNand = {"Démarrage du test ECRITURE/LECTURE NAND",
                           "Test écriture fichier TOV_TEST.MSR de 256 lignes contenant 256 valeurs",
                           "Test Lecture fichier de 256 lignes OK"};
const QString kNoModule = QStringLiteral("ERREUR Aucun Modul MesureV1 ou V2 Détecté");

QStringList relays(const QString& v)
{
    return {"GPIO TOR RESERVE= " + v, "GPIO Relais ALARME NIVEAU BAS sur " + v,
            "GPIO Relais ALARME INVERSEUR sur " + v, "GPIO Relais ALIM BUS MODULES sur " + v};
}

// The V2 module with one faulty sensor: its values, then that sensor's line.
QStringList v2Sensor(const char* values, const char* sensor)
{
    return {kV2, QString("Poids= %1").arg(values), QString::fromUtf8(sensor) + ", veuillez vérifier!"};
}

INSTANTIATE_TEST_SUITE_P(
    Thread, Scenario,
    testing::Values(
        Row{"NoNetwork", kDate, kRelayStage,
            QStringList({"ERREUR Dongle USB WIFI NON branché/configuré, veuillez vérifier !",
                         "ERREUR Câble Réseau Ethernet NON branché/configuré, veuillez vérifier !"})
                << kNand << "Librairie VITRANOL installée OK",
            1, false},
        Row{"WirelessOnly", kDate, "Démarrage du test",
            {"Dongle USB WIFI branché OK", "Réseau WIFI configuré OK",
             "ERREUR Câble Réseau Ethernet NON branché/configuré, veuillez vérifier !",
             "ERREUR Aucunne Connection vers WATCHTOWER, plus de tests réseaux"}, 1, false},
        Row{"ServerDown", "Câble Réseau Ethernet branché", "Librairie VITRANOL",
            QStringList("ERREUR Aucunne Connection vers WATCHTOWER, plus de tests réseaux") << kNand, 1, false},
        Row{"UploadRefused", "Test Lecture fichier", "Librairie VITRANOL",
            {"Connection vers WATCHTOWER OK, Test TRANSFERT WATCHTOWER ...",
             "ERREUR transfert Fichier TOV_TEST.MSR sur WATCHTOWER"}, 0, true},
        Row{"Used44", "Composant ETHERNET", kDate,
            {"Espace de Stockage (libre/total): 84Mo/128Mo", "ERREUR Espace de Stockage NAND Inutilisable"}, 1, true},
        Row{"Used45", "Composant ETHERNET", kDate, {"Espace de Stockage (libre/total): 83Mo/128Mo"}, 0, true},
        Row{"NoLibrary", "Fichier TOV_TEST.MSR transféré", kRelayStage, {"ERREUR librairie VITRANOL pas installée"}, 1,
            true},
        // Without /ramdisk the command captures read empty.
        Row{"NoRamdisk", "", "Espace de Stockage", {"Kernel Version: ", "Composant ETHERNET: DM9000-X"}, 0, true},
        // Without sysfs GPIO every pin reads -1, the value the loop starts from: no line at all.
        Row{"NoGpio", kRelayStage, kV2, {}, 0, true},
        // The V1 emulator's fields 00500,07410,06500,08000,12000: weight 500, temperatures n / 117 - 40,
        // 12000 uA on the default 0-30 range gives 15.
        Row{"ModuleV1", kLastInput, kEndLine,
            {"Modul MesureV1 Détecté OK", "Poids= 500, PR= 15, T_SOR= 23.3333, T_ENT= 28.3761, T_EXT= 15.5556"}, 0,
            true},
        Row{"ModuleV1Silent", kLastInput, kEndLine, {"Modul MesureV1 Détecté OK", "ERREUR RS485 Modul MesureV1"}, 1,
            true},
        Row{"ModuleV1Cut", kLastInput, kEndLine, {kNoModule}, 1, true},
        Row{"ModuleV2Cut", kLastInput, kEndLine, {kNoModule}, 1, true},
        Row{"ModuleV2Faulty", kLastInput, kEndLine,
            {kV2, "Poids= -999, PR= 999, T_SOR= 999, T_ENT= 999, T_EXT= 999",
             "ERREUR Sonde PRESSION HP, veuillez vérifier!", "ERREUR Sonde PT100 SORTIE, veuillez vérifier!",
             "ERREUR Sonde PT100 ENTREE, veuillez vérifier!", "ERREUR Sonde PT100 EXTERIEURE, veuillez vérifier!",
             "ERREUR POIDS Jauge de Contrainte, veuillez vérifier!"}, 4, true},
        // One faulty sensor per unit: exactly its line, and only the high-pressure one goes uncounted.
        Row{"V2Pressure", kLastInput, kEndLine,
            v2Sensor("125.5, PR= 999, T_SOR= 35.75, T_ENT= 21.5, T_EXT= 8.5", "ERREUR Sonde PRESSION HP"), 0, true},
        Row{"V2Outlet", kLastInput, kEndLine,
            v2Sensor("125.5, PR= 12.25, T_SOR= 999, T_ENT= 21.5, T_EXT= 8.5", "ERREUR Sonde PT100 SORTIE"), 1, true},
        Row{"V2Inlet", kLastInput, kEndLine,
            v2Sensor("125.5, PR= 12.25, T_SOR= 35.75, T_ENT= 999, T_EXT= 8.5", "ERREUR Sonde PT100 ENTREE"), 1, true},
        Row{"V2Outside", kLastInput, kEndLine,
            v2Sensor("125.5, PR= 12.25, T_SOR= 35.75, T_ENT= 21.5, T_EXT= 999", "ERREUR Sonde PT100 EXTERIEURE"), 1,
            true},
        Row{"V2Weight", kLastInput, kEndLine,
            v2Sensor("-999, PR= 12.25, T_SOR= 35.75, T_ENT= 21.5, T_EXT= 8.5", "ERREUR POIDS Jauge de Contrainte"), 1,
            true}),
    [](const testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

// Each input goes active then idle on its own, the next change made once the bench has shown the
// last one, RESERVE's once the relays have followed it: each line shows its own input, and the
// emulator's journal shows the three relays' value files written idle on the first pass, active
// while RESERVE is, idle again after.
TEST(TestThread, EachInputOnItsOwnAndTheRelaysFollowReserve)
{
    QStringList lines = QStringList({"GPIO TOR MARCHE COMPRESSEUR= 0", "GPIO TOR MARCHE CENTRAL= 0"})
                        << relays("0") << "GPIO TOR DIPSWITCH_SW2_1= 0" << kLastInput;
    const auto driven = [](int v) {
        return "value 136 " + std::to_string(v) + "\nvalue 138 " + std::to_string(v) + "\nvalue 135 " +
               std::to_string(v) + "\n";
    };
    std::string journal = tovtest::boardBuiltJournal() + driven(0);
    std::vector<std::pair<int, int>> changes; // (pin, level), made in turn
    std::vector<QString> madeAfter;           // the line after which each change is made
    for (const tovtest::BoardPin& input : tovtest::kBoardPins) {
        for (int v = 1; !input.relay && v >= 0; --v) {
            madeAfter.push_back(lines.last());
            changes.emplace_back(input.pin, 1 - v);
            journal += "input " + std::to_string(input.pin) + " " + std::to_string(1 - v) + "\n";
            if (input.pin == 202) {
                lines << relays(QString::number(v));
                journal += driven(v);
            } else {
                lines << QString("GPIO TOR %1= %2").arg(input.role).arg(v);
            }
        }
    }
    size_t made = 0;
    bool stage = false;
    const RunRecord run = runThread(false, [&](const QString& line) {
        stage = stage || line == kRelayStage;
        if (stage && made < changes.size() && line == madeAfter[made]) {
            tovtest::setGpioLevel(changes[made].first, changes[made].second);
            ++made;
        }
    });
    EXPECT_EQ(linesBetween(run.lines, kRelayStage, kV2), lines);
    EXPECT_EQ(tovtest::gpioJournal(), journal + tovtest::boardReleasedJournal());
    EXPECT_EQ(run.errors, 0);
}
