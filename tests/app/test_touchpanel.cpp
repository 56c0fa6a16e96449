// The touch panel read through the real tslib and the filters the unit ships: a pseudo-terminal
// plays a serial TouchKit panel (tslib's touchkit module), whose raw 0..2047 coordinates the
// unit's pointercal scales to the screen. A button must take the presses and releases where the
// calibration puts them, and a panel that goes away must leave the bench quiet and usable.
#include "app/touchpanel.h"

#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace {

// One TouchKit report: a header with the touch bit, then x and y in two 7-bit halves each.
QByteArray report(int x, int y, bool touched)
{
    const char bytes[] = {char(0x80 | (touched ? 1 : 0)), char(x >> 7), char(x & 0x7f), char(y >> 7),
                          char(y & 0x7f)};
    return QByteArray(bytes, sizeof bytes);
}

double cpuSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
}

// What the bench prints while it lives: standard output goes to a file, shown again at the end
// with whatever the test itself said there.
class Console
{
public:
    explicit Console(const QString& path) : m_path(path)
    {
        std::fflush(stdout);
        m_saved = dup(1);
        const int fd = ::open(path.toLocal8Bit().constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(fd, 1);
        ::close(fd);
    }
    ~Console()
    {
        const QByteArray said = text().toUtf8();
        dup2(m_saved, 1);
        ::close(m_saved);
        std::fwrite(said.constData(), 1, size_t(said.size()), stdout);
        std::fflush(stdout);
    }
    QString text() const
    {
        std::fflush(stdout);
        QFile file(m_path);
        return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
    }

private:
    QString m_path;
    int m_saved;
};

} // namespace

class TestTouchPanel : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QFile conf(m_dir.filePath("ts.conf"));
        QVERIFY(conf.open(QIODevice::WriteOnly));
        conf.write("module_raw touchkit\nmodule pthres pmin=1\nmodule dejitter delta=100\nmodule linear\n");
        conf.close();
        // As ts_calibrate writes it: x = (a2 + a0 x + a1 y) / a6, y = (a5 + a3 x + a4 y) / a6.
        QFile pointercal(m_dir.filePath("pointercal"));
        QVERIFY(pointercal.open(QIODevice::WriteOnly));
        pointercal.write("640 0 0 0 480 0 2048\n");
        pointercal.close();
        qputenv("TSLIB_CONFFILE", m_dir.filePath("ts.conf").toLocal8Bit());
    }

    // A new panel for every test: one of them takes it away.
    void init()
    {
        qputenv("TSLIB_CALIBFILE", m_dir.filePath("pointercal").toLocal8Bit());
        m_panel = posix_openpt(O_RDWR | O_NOCTTY);
        QVERIFY(m_panel >= 0 && grantpt(m_panel) == 0 && unlockpt(m_panel) == 0);
        // A serial line passes bytes as they come; the terminal keeps its settings while open.
        m_line = ::open(ptsname(m_panel), O_RDWR | O_NOCTTY);
        termios raw{};
        QVERIFY(m_line >= 0 && tcgetattr(m_line, &raw) == 0);
        cfmakeraw(&raw);
        QVERIFY(tcsetattr(m_line, TCSANOW, &raw) == 0);
        qputenv("TSLIB_TSDEVICE", ptsname(m_panel));
        m_screen.reset(new QWidget);
        m_screen->setWindowFlags(Qt::FramelessWindowHint);
        m_screen->setGeometry(0, 0, 640, 480);
        m_button = new QPushButton("OK", m_screen.get());
        m_button->setGeometry(400, 300, 100, 60);
        m_screen->show();
        QVERIFY(QTest::qWaitForWindowExposed(m_screen.get()));
    }

    void cleanup()
    {
        m_screen.reset();
        ::close(m_line);
        if (m_panel >= 0)
            ::close(m_panel);
    }

    void touch_data()
    {
        QTest::addColumn<QList<QPoint>>("path"); // raw panel points while pressed, then lifted
        QTest::addColumn<int>("clicks");
        // The button spans 400..499 x 300..359 on the screen: raw 1280..1596 x 1280..1535.
        QTest::newRow("tap on the button") << QList<QPoint>{{1408, 1365}} << 1;
        QTest::newRow("tap beside it") << QList<QPoint>{{1000, 1365}} << 0;
        QTest::newRow("slid onto it") << QList<QPoint>{{1000, 1365}, {1408, 1365}} << 0;
        QTest::newRow("slid within it") << QList<QPoint>{{1300, 1300}, {1500, 1500}} << 1;
        QTest::newRow("slid off it") << QList<QPoint>{{1408, 1365}, {1000, 1365}} << 0;
    }

    void touch()
    {
        QFETCH(QList<QPoint>, path);
        QFETCH(int, clicks);
        QSignalSpy pressed(m_button, &QPushButton::pressed);
        QSignalSpy clicked(m_button, &QPushButton::clicked);
        TouchPanel panel;
        QVERIFY(panel.isOpen());
        QByteArray reports;
        for (const QPoint& point : path)
            reports += report(point.x(), point.y(), true);
        send(reports + report(path.last().x(), path.last().y(), false));
        QTRY_COMPARE(pressed.count(), path.first().x() >= 1280 ? 1 : 0);
        QTest::qWait(200);
        QCOMPARE(clicked.count(), clicks);
    }

    // The panel unplugged with a finger on the button: one line on the console, the button comes
    // up without a click, and the bench does not spin on a descriptor that stays readable.
    void panelGoesAwayMidTap()
    {
        Console console(m_dir.filePath("console"));
        QSignalSpy clicked(m_button, &QPushButton::clicked);
        TouchPanel panel;
        send(report(1408, 1365, true));
        QTRY_VERIFY(m_button->isDown());
        ::close(m_panel);
        m_panel = -1;
        const QString gone = "[TouchPanel] the touch panel stopped answering (hang-up): the bench runs without touch\n";
        QTRY_COMPARE(console.text(), gone);
        QVERIFY(!panel.isOpen());
        QTRY_VERIFY(!m_button->isDown());
        const double before = cpuSeconds();
        QTest::qWait(2000);
        QVERIFY2(cpuSeconds() - before < 0.2, qPrintable(QString::number(cpuSeconds() - before)));
        QCOMPARE(console.text(), gone);
        QCOMPARE(clicked.count(), 0);
    }

    // Without a calibration the bench says so once and the raw coordinates reach the screen.
    void withoutCalibration()
    {
        Console console(m_dir.filePath("console"));
        qputenv("TSLIB_CALIBFILE", m_dir.filePath("no-pointercal").toLocal8Bit());
        QSignalSpy clicked(m_button, &QPushButton::clicked);
        TouchPanel panel;
        QVERIFY(panel.isOpen());
        send(report(450, 330, true) + report(450, 330, false));
        QTRY_COMPARE(clicked.count(), 1);
        QCOMPARE(console.text(), "[TouchPanel] no calibration at " + m_dir.filePath("no-pointercal") +
                                     " (No such file or directory): the panel's raw coordinates are used\n");
    }

private:
    // tslib's touchkit module sets the line up at its first read, dropping what came before.
    void send(const QByteArray& reports)
    {
        QCOMPARE(::write(m_panel, "", 1), qsizetype(1));
        QTest::qWait(100);
        QCOMPARE(::write(m_panel, reports.constData(), reports.size()), qsizetype(reports.size()));
    }

    QTemporaryDir m_dir;
    int m_panel = -1;
    int m_line = -1;
    std::unique_ptr<QWidget> m_screen;
    QPushButton* m_button = nullptr;
};

QTEST_MAIN(TestTouchPanel)
#include "test_touchpanel.moc"
