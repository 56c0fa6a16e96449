// The touch panel read through the real tslib: a pseudo-terminal plays a serial TouchKit panel
// (tslib's touchkit module), whose raw 0..2047 coordinates the unit's pointercal scales to the
// screen. A button must take the presses and releases where the calibration puts them.
#include "app/touchpanel.h"

#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>
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

} // namespace

class TestTouchPanel : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        m_panel = posix_openpt(O_RDWR | O_NOCTTY);
        QVERIFY(m_panel >= 0 && grantpt(m_panel) == 0 && unlockpt(m_panel) == 0);
        // A serial line passes bytes as they come; the terminal keeps its settings while open.
        m_line = ::open(ptsname(m_panel), O_RDWR | O_NOCTTY);
        termios raw{};
        QVERIFY(m_line >= 0 && tcgetattr(m_line, &raw) == 0);
        cfmakeraw(&raw);
        QVERIFY(tcsetattr(m_line, TCSANOW, &raw) == 0);
        QFile conf(m_dir.filePath("ts.conf"));
        QVERIFY(conf.open(QIODevice::WriteOnly));
        conf.write("module_raw touchkit\nmodule linear\n");
        conf.close();
        // As ts_calibrate writes it: x = (a2 + a0 x + a1 y) / a6, y = (a5 + a3 x + a4 y) / a6.
        QFile pointercal(m_dir.filePath("pointercal"));
        QVERIFY(pointercal.open(QIODevice::WriteOnly));
        pointercal.write("640 0 0 0 480 0 2048\n");
        pointercal.close();
        qputenv("TSLIB_TSDEVICE", ptsname(m_panel));
        qputenv("TSLIB_CONFFILE", m_dir.filePath("ts.conf").toLocal8Bit());
        qputenv("TSLIB_CALIBFILE", m_dir.filePath("pointercal").toLocal8Bit());
    }

    void cleanupTestCase()
    {
        ::close(m_line);
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
        QWidget screen;
        screen.setWindowFlags(Qt::FramelessWindowHint);
        screen.setGeometry(0, 0, 640, 480);
        QPushButton button("OK", &screen);
        button.setGeometry(400, 300, 100, 60);
        QSignalSpy pressed(&button, &QPushButton::pressed);
        QSignalSpy clicked(&button, &QPushButton::clicked);
        screen.show();
        QVERIFY(QTest::qWaitForWindowExposed(&screen));
        TouchPanel panel;
        QVERIFY(panel.isOpen());

        // tslib's touchkit module sets the line up at its first read, dropping what came before.
        QCOMPARE(::write(m_panel, "", 1), qsizetype(1));
        QTest::qWait(100);
        QByteArray reports;
        for (const QPoint& point : path)
            reports += report(point.x(), point.y(), true);
        reports += report(path.last().x(), path.last().y(), false);
        QCOMPARE(::write(m_panel, reports.constData(), reports.size()), qsizetype(reports.size()));
        QTRY_COMPARE(pressed.count(), path.first().x() >= 1280 ? 1 : 0);
        QTest::qWait(200);
        QCOMPARE(clicked.count(), clicks);
    }

private:
    QTemporaryDir m_dir;
    int m_panel = -1;
    int m_line = -1;
};

QTEST_MAIN(TestTouchPanel)
#include "test_touchpanel.moc"
