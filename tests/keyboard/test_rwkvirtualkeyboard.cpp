// The on-screen keyboard driven as an operator would: clicks, long presses and page keys on the real
// buttons, with a line edit of the same window holding the focus and receiving the key presses.
#include "keyboard/rwkvirtualkeyboard.h"

#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

namespace {

// Every key press the edit receives, checked to be one plain press: no modifiers, no auto-repeat,
// a count of 1, a key code that is the character's own (or the one given to expected()).
class KeyRecorder : public QObject {
public:
    QString texts;
    QList<int> codes;
    int oddEvents = 0; // releases, modifiers, repeats, counts other than 1

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::KeyPress) {
            auto* key = static_cast<QKeyEvent*>(event);
            texts += key->text();
            codes << key->key();
            if (key->modifiers() != Qt::NoModifier || key->isAutoRepeat() || key->count() != 1)
                ++oddEvents;
        } else if (event->type() == QEvent::KeyRelease) {
            ++oddEvents;
        }
        return QObject::eventFilter(watched, event);
    }
};

// A 640 x 480 window like the unit's screen: an edit at the top, the keyboard in the lower half.
struct Bench {
    QWidget window;
    QLineEdit* edit = new QLineEdit(&window);
    RWKVirtualKeyboard* kb = new RWKVirtualKeyboard(&window);
    KeyRecorder recorder;

    bool start()
    {
        window.resize(640, 480);
        edit->setGeometry(10, 10, 300, 40);
        kb->setGeometry(0, 240, 640, 240);
        edit->installEventFilter(&recorder);
        window.show();
        if (!QTest::qWaitForWindowExposed(&window))
            return false;
        edit->setFocus();
        return window.focusWidget() == edit;
    }
    QPushButton* key(int i) const { return kb->findChild<QPushButton*>(QString("key%1").arg(i)); }
    QPushButton* fn(int i) const { return kb->findChild<QPushButton*>(QString("keyC%1").arg(i)); }
    QPushButton* accentKey(int i) const { return kb->findChild<QPushButton*>(QString("accentKey%1").arg(i)); }
    QPushButton* preview() const { return window.findChild<QPushButton*>("keyPreview"); }
    QLabel* popup() const { return kb->findChild<QLabel*>("accentPanel"); }
    QPushButton* keyShowing(const QString& text) const
    {
        for (int i = 0; i < RWKVirtualKeyboard::KeyCount; ++i)
            if (key(i)->text() == text)
                return key(i);
        return nullptr;
    }
    // Whether the presses so far were exactly TEXT, each with its own character as key code.
    bool typed(const QString& text) const
    {
        QList<int> codes;
        for (QChar c : text)
            codes << c.unicode();
        return recorder.texts == text && recorder.codes == codes && recorder.oddEvents == 0;
    }
};

#define START(b) QVERIFY2((b).start(), "the edit must hold the focus of the window")

const QString kNumbers = QString::fromUtf8("1234567890-+:;()€&@\".,?!'²");

QStringList gWarnings;

// Qt reports misuse it tolerates (a widget put into a second layout, a bad connection) only as
// warnings: every case must run without any.
void recordWarnings(QtMsgType type, const QMessageLogContext&, const QString& message)
{
    if (type == QtWarningMsg || type == QtCriticalMsg)
        gWarnings << message;
}

} // namespace

class TestVirtualKeyboard : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        gWarnings.clear();
        qInstallMessageHandler(recordWarnings);
    }

    void cleanup()
    {
        qInstallMessageHandler(nullptr);
        QVERIFY2(gWarnings.isEmpty(), qPrintable(gWarnings.join('\n')));
    }

    // Each page reached through the function keys: what its 26 keys type in key order, what the
    // two page keys read, and whether key 19 sits at the end of the second row (beside key 18)
    // or at the start of the third (before key 20). Steps: '1' and '3' click C1 and C3, 'q' and
    // 'a' choose QWERTY and AZERTY.
    void pages_data()
    {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("c1");
        QTest::addColumn<QString>("c3");
        QTest::addColumn<int>("besideKey19");
        QTest::newRow("letters") << "" << "azertyuiopqsdfghjklmwxcvbn" << " " << ".?123" << 18;
        QTest::newRow("shift held for every letter") << "1" << "AZERTYUIOPQSDFGHJKLMWXCVBN" << " " << ".?123" << 18;
        QTest::newRow("numbers") << "3" << kNumbers << "#+=" << "ABC" << 18;
        QTest::newRow("symbols keep the last two number keys")
            << "31" << QString("[]{}#%^-+=_|~<>$/\\.;,?!*'") + QChar(0xB2) << "123" << "ABC" << 18;
        QTest::newRow("symbols back to numbers") << "311" << kNumbers << "#+=" << "ABC" << 18;
        QTest::newRow("back to letters, shift released") << "133" << "azertyuiopqsdfghjklmwxcvbn" << " " << ".?123" << 18;
        QTest::newRow("qwerty letters") << "q" << "qwertyuiopasdfghjklzxcvbnm" << " " << ".?123" << 20;
        QTest::newRow("qwerty numbers") << "q3" << kNumbers << "#+=" << "ABC" << 18;
        QTest::newRow("qwerty chosen on the symbol page") << "31q" << kNumbers << "#+=" << "ABC" << 18;
        QTest::newRow("qwerty back to letters") << "q33" << "qwertyuiopasdfghjklzxcvbnm" << " " << ".?123" << 20;
        QTest::newRow("azerty again") << "qa" << "azertyuiopqsdfghjklmwxcvbn" << " " << ".?123" << 18;
    }

    void pages()
    {
        QFETCH(QString, steps);
        QFETCH(QString, typed);
        QFETCH(QString, c1);
        QFETCH(QString, c3);
        QFETCH(int, besideKey19);
        Bench b;
        START(b);
        for (QChar step : steps) {
            if (step == 'q' || step == 'a')
                b.kb->setKeyboardLayout(step == 'a');
            else
                QTest::mouseClick(b.fn(step.digitValue()), Qt::LeftButton);
        }
        QCOMPARE(b.fn(1)->text(), c1);
        QCOMPARE(b.fn(3)->text(), c3);
        // On the letter page C1 is a shift showing its arrow; elsewhere a plain page key.
        QCOMPARE(b.fn(1)->isCheckable(), c3 == ".?123");
        QCOMPARE(b.fn(1)->icon().isNull(), c3 != ".?123");
        for (int i = 0; i < RWKVirtualKeyboard::KeyCount; ++i)
            QTest::mouseClick(b.key(i), Qt::LeftButton);
        QVERIFY2(b.typed(typed), qPrintable(b.recorder.texts));
        QCOMPARE(b.edit->text(), typed);

        QPushButton* k19 = b.key(19);
        QPushButton* beside = b.key(besideKey19);
        QTRY_COMPARE(k19->y(), beside->y());
        QCOMPARE(k19->x() < beside->x(), besideKey19 == 20);
    }

    // Holding a letter key: the preview above it, then after a second the accents it offers, in
    // order, on a popup whose width follows the keyboard's; an accent click types it.
    void longPress_data()
    {
        QTest::addColumn<QString>("letter");
        QTest::addColumn<bool>("shift");
        QTest::addColumn<int>("keyboardWidth");
        QTest::addColumn<QString>("accents");
        QTest::addColumn<int>("popupWidth");
        QTest::newRow("A") << "A" << false << 640 << QString::fromUtf8("àâäã") << 152;
        QTest::newRow("C") << "C" << false << 417 << QString::fromUtf8("ç") << 26;
        QTest::newRow("E") << "E" << false << 640 << QString::fromUtf8("éèêë") << 152;
        QTest::newRow("I") << "I" << false << 200 << QString::fromUtf8("îï") << 48;
        QTest::newRow("N") << "N" << false << 450 << QString::fromUtf8("ñ") << 27;
        QTest::newRow("O") << "O" << false << 399 << QString::fromUtf8("ôö") << 48;
        QTest::newRow("U") << "U" << false << 640 << QString::fromUtf8("ùûüµ") << 152;
        QTest::newRow("Y") << "Y" << false << 500 << QString::fromUtf8("ÿ") << 30;
        QTest::newRow("T has no accents") << "T" << false << 640 << QString() << 0;
        QTest::newRow("E with shift on") << "E" << true << 640 << QString() << 0;
    }

    void longPress()
    {
        QFETCH(QString, letter);
        QFETCH(bool, shift);
        QFETCH(int, keyboardWidth);
        QFETCH(QString, accents);
        QFETCH(int, popupWidth);
        Bench b;
        START(b);
        b.kb->resize(keyboardWidth, 240);
        if (shift)
            QTest::mouseClick(b.fn(1), Qt::LeftButton);
        QPushButton* key = b.keyShowing(letter);
        QVERIFY(key != nullptr);
        QTest::mousePress(key, Qt::LeftButton);
        const QString shown = shift ? letter : letter.toLower();
        QCOMPARE(b.preview()->text(), shown);
        const QPoint at = key->mapTo(&b.window, QPoint(0, 0));
        QCOMPARE(b.preview()->geometry(), QRect(at.x() + key->width() / 2 - 16, at.y() - 35, 32, 32));
        QVERIFY(b.preview()->isVisible());

        QTest::qWait(800);
        QVERIFY(b.popup()->isHidden());
        if (accents.isEmpty()) {
            QTest::qWait(700);
            QVERIFY(b.popup()->isHidden());
            QVERIFY(b.preview()->isVisible());
            QTest::mouseRelease(key, Qt::LeftButton);
            QVERIFY(b.typed(shown));
            QVERIFY(b.preview()->isHidden());
            return;
        }
        QTRY_VERIFY_WITH_TIMEOUT(b.popup()->isVisible(), 1000);
        QVERIFY(b.preview()->isHidden());
        QString offered;
        for (int i = 0; i < RWKVirtualKeyboard::AccentKeyCount; ++i)
            if (b.accentKey(i)->isVisible())
                offered += b.accentKey(i)->text();
        QCOMPARE(offered, accents);
        QCOMPARE(b.popup()->width(), popupWidth);
        QVERIFY(b.kb->rect().contains(b.popup()->geometry()));

        QTest::mouseRelease(key, Qt::LeftButton);
        QVERIFY(b.typed(""));
        QVERIFY(b.popup()->isVisible());
        QTest::mouseClick(b.accentKey(accents.size() - 1), Qt::LeftButton);
        QVERIFY(b.typed(accents.right(1)));
        QVERIFY(b.popup()->isHidden());
        QCOMPARE(QApplication::focusWidget(), b.edit);
    }

    void releasedAwayFromTheKeyOpensNoPopupLater()
    {
        Bench b;
        START(b);
        QPushButton* e = b.keyShowing("E");
        QTest::mousePress(e, Qt::LeftButton);
        // The finger slides off the key: the button sees its release outside and emits no click.
        QTest::mouseRelease(e, Qt::LeftButton, Qt::NoModifier, QPoint(-50, -50));
        QTest::qWait(RWKVirtualKeyboard::LongPressMs + 500);
        QVERIFY(b.popup()->isHidden());
        QVERIFY(b.preview()->isHidden());
        QVERIFY(b.typed(""));
    }

    void deleteAndSpace()
    {
        Bench b;
        START(b);
        b.edit->setText("ab");
        QTest::mouseClick(b.fn(2), Qt::LeftButton);
        QTest::mouseClick(b.fn(4), Qt::LeftButton);
        QCOMPARE(b.recorder.texts, QString("\b "));
        QCOMPARE(b.recorder.codes, (QList<int>{Qt::Key_Backspace, 32}));
        QCOMPARE(b.recorder.oddEvents, 0);
        QCOMPARE(b.edit->text(), QString("a "));
        QCOMPARE(QApplication::focusWidget(), b.edit);
    }
};

QTEST_MAIN(TestVirtualKeyboard)
#include "test_rwkvirtualkeyboard.moc"
