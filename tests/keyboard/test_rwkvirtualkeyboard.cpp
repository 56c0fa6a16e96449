// The on-screen keyboard driven as an operator would: clicks, long presses and page keys on the real
// buttons, with a line edit of the same window holding the focus and receiving the key presses.
#include "keyboard/rwkvirtualkeyboard.h"

#include <QBoxLayout>
#include <QDir>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTimer>
#include <QtTest>

#include <memory>

namespace {

struct SentKey {
    int key;
    QString text;
    Qt::KeyboardModifiers modifiers;
    bool autoRepeat;
    int count;
};

class KeyRecorder : public QObject {
public:
    QList<SentKey> presses;
    int releases = 0;

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::KeyPress) {
            auto* key = static_cast<QKeyEvent*>(event);
            presses.append({key->key(), key->text(), key->modifiers(), key->isAutoRepeat(), key->count()});
        } else if (event->type() == QEvent::KeyRelease) {
            ++releases;
        }
        return QObject::eventFilter(watched, event);
    }
};

// A 640 x 480 window like the unit's screen: an edit at the top, the keyboard in the lower half.
struct Bench {
    QWidget window;
    QLineEdit* edit = nullptr;
    RWKVirtualKeyboard* kb = nullptr;
    KeyRecorder recorder;

    bool start()
    {
        window.resize(640, 480);
        edit = new QLineEdit(&window);
        edit->setGeometry(10, 10, 300, 40);
        kb = new RWKVirtualKeyboard(&window);
        kb->setGeometry(0, 240, 640, 240);
        edit->installEventFilter(&recorder);
        window.show();
        if (!QTest::qWaitForWindowExposed(&window))
            return false;
        window.activateWindow();
        edit->setFocus();
        return window.focusWidget() == edit;
    }

    QPushButton* key(int i) const { return kb->findChild<QPushButton*>(QString("key%1").arg(i)); }
    QPushButton* fn(int i) const { return kb->findChild<QPushButton*>(QString("keyC%1").arg(i)); }
    QPushButton* accentKey(int i) const { return kb->findChild<QPushButton*>(QString("accentKey%1").arg(i)); }
    QPushButton* preview() const { return window.findChild<QPushButton*>("keyPreview"); }
    QLabel* accentPanel() const { return kb->findChild<QLabel*>("accentPanel"); }
    QWidget* accentRow() const { return kb->findChild<QWidget*>("accentRow"); }
    QHBoxLayout* row(int r) const { return kb->findChild<QHBoxLayout*>(QString("keyRow%1").arg(r)); }

    QPushButton* keyShowing(const QString& text) const
    {
        for (int i = 0; i < RWKVirtualKeyboard::KeyCount; ++i) {
            if (key(i)->text() == text)
                return key(i);
        }
        return nullptr;
    }

    QString keyTexts(int count = RWKVirtualKeyboard::KeyCount) const
    {
        QString all;
        for (int i = 0; i < count; ++i)
            all += key(i)->text() == "&&" ? QString("&") : key(i)->text();
        return all;
    }

    // The one key press a click produced, or a marker when there was not exactly one.
    SentKey takeOnly()
    {
        SentKey sent{-1, "none or several", Qt::NoModifier, false, 0};
        if (recorder.presses.size() == 1)
            sent = recorder.presses.first();
        recorder.presses.clear();
        return sent;
    }
};

#define START(b) QVERIFY2((b).start(), "the edit must hold the focus of the window")

#define CHECK_SENT(b, code, txt)                                 \
    do {                                                         \
        const SentKey s = (b).takeOnly();                        \
        QCOMPARE(s.text, QString(txt));                          \
        QCOMPARE(s.key, int(code));                              \
        QCOMPARE(s.modifiers, Qt::KeyboardModifiers(Qt::NoModifier)); \
        QVERIFY(!s.autoRepeat);                                  \
        QCOMPARE(s.count, 1);                                    \
        QCOMPARE((b).recorder.releases, 0);                      \
    } while (0)

const QString kAzerty = "AZERTYUIOPQSDFGHJKLMWXCVBN";
const QString kQwerty = "QWERTYUIOPASDFGHJKLZXCVBNM";
const QString kNumbers = QString::fromUtf8("1234567890-+:;()€&@\".,?!'²");
const QString kSymbols = "[]{}#%^-+=_|~<>$/\\.;,?!*";

// Waits past the long-press delay (even a coarse timer cannot fire before 95 % of it).
void holdBeyondLongPress() { QTest::qWait(RWKVirtualKeyboard::LongPressMs + 500); }

int darkPixels(const QImage& image, const QRect& area)
{
    int dark = 0;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            if (qGray(image.pixel(x, y)) < 80)
                ++dark;
        }
    }
    return dark;
}

QStringList gWarnings;
QtMessageHandler gPreviousHandler = nullptr;

// Qt reports misuse it tolerates (a widget put into a second layout, a bad connection) only as
// warnings: every case must run without any.
void recordWarnings(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtWarningMsg || type == QtCriticalMsg)
        gWarnings.append(message);
    if (gPreviousHandler)
        gPreviousHandler(type, context, message);
}

}  // namespace

class TestVirtualKeyboard : public QObject {
    Q_OBJECT

private slots:
    void init()
    {
        gWarnings.clear();
        gPreviousHandler = qInstallMessageHandler(recordWarnings);
    }

    void cleanup()
    {
        qInstallMessageHandler(gPreviousHandler);
        QVERIFY2(gWarnings.isEmpty(), qPrintable(gWarnings.join('\n')));
    }

    void builtAsATouchKeyboard()
    {
        Bench b;
        START(b);
        QCOMPARE(b.kb->minimumSize(), QSize(50, 150));
        QCOMPARE(b.keyTexts(), kAzerty);
        QCOMPARE(b.fn(1)->text(), QString(" "));
        QVERIFY(b.fn(1)->isCheckable());
        QVERIFY(!b.fn(1)->isChecked());
        QCOMPARE(b.fn(3)->text(), QString(".?123"));
        QCOMPARE(b.fn(4)->text(), QString("Space"));
        QCOMPARE(b.fn(3)->maximumWidth(), 640 * 19 / 100);
        for (const char* image : {":/new/prefix1/gui_images/arrow.png", ":/new/prefix1/gui_images/delArrow.png"})
            QVERIFY2(!QPixmap(image).isNull(), image);

        const QList<QPushButton*> buttons = b.kb->findChildren<QPushButton*>();
        QCOMPARE(buttons.size(), RWKVirtualKeyboard::KeyCount + 4 + RWKVirtualKeyboard::AccentKeyCount);
        for (QPushButton* button : buttons) {
            QCOMPARE(button->focusPolicy(), Qt::NoFocus);
            QCOMPARE(button->font().pointSize(), 16);
            QVERIFY(button->font().bold());
        }

        auto* background = b.kb->findChild<QLabel*>("keyboardBackground");
        QVERIFY(background != nullptr);
        QCOMPARE(background->styleSheet(), QString("background-color:rgb(105, 105, 105);"));
        QCOMPARE(background->size(), QSize(640, 240));
        auto* rows = b.kb->findChild<QVBoxLayout*>("keyRows");
        QVERIFY(rows != nullptr);
        QCOMPARE(rows->spacing(), 0);
        QCOMPARE(rows->contentsMargins(), QMargins(0, 0, 0, 0));
        auto* accentLayout = b.kb->findChild<QHBoxLayout*>("accentRowLayout");
        QVERIFY(accentLayout != nullptr);
        QCOMPARE(accentLayout->contentsMargins(), QMargins(5, 0, 5, 0));
        QCOMPARE(accentLayout->spacing(), 1);
        QVERIFY(b.accentPanel()->isHidden());
        QVERIFY(b.accentRow()->isHidden());

        auto* timer = b.kb->findChild<QTimer*>("longPressTimer");
        QVERIFY(timer != nullptr);
        QVERIFY(!timer->isSingleShot());

        b.kb->resize(417, 200);
        QCOMPARE(b.fn(3)->maximumWidth(), 417 * 19 / 100);
        QCOMPARE(background->size(), QSize(417, 200));
    }

    void letterKeysFollowTheShift()
    {
        Bench b;
        START(b);
        QPushButton* e = b.keyShowing("E");
        QVERIFY(e != nullptr);
        QTest::mouseClick(e, Qt::LeftButton);
        CHECK_SENT(b, 'e', "e");

        QTest::mouseClick(b.fn(1), Qt::LeftButton);
        QVERIFY(b.fn(1)->isChecked());
        QVERIFY(b.recorder.presses.isEmpty());
        QTest::mouseClick(e, Qt::LeftButton);
        CHECK_SENT(b, 'E', "E");
        // The shift holds until the operator releases it.
        QTest::mouseClick(b.keyShowing("Z"), Qt::LeftButton);
        CHECK_SENT(b, 'Z', "Z");

        QTest::mouseClick(b.fn(1), Qt::LeftButton);
        QVERIFY(!b.fn(1)->isChecked());
        QTest::mouseClick(e, Qt::LeftButton);
        CHECK_SENT(b, 'e', "e");
        QCOMPARE(b.edit->text(), QString("eEZe"));
        QCOMPARE(QApplication::focusWidget(), b.edit);
    }

    void numberPageSendsItsCharactersUnchanged()
    {
        Bench b;
        START(b);
        QPushButton* e = b.keyShowing("E");
        QTest::mouseClick(b.fn(3), Qt::LeftButton);
        QCOMPARE(b.fn(3)->text(), QString("ABC"));
        QCOMPARE(b.fn(1)->text(), QString("#+="));
        QVERIFY(!b.fn(1)->isCheckable());
        QVERIFY(b.fn(1)->icon().isNull());
        QCOMPARE(b.keyTexts(), kNumbers);

        QTest::mouseClick(e, Qt::LeftButton);
        CHECK_SENT(b, '3', "3");
        QTest::mouseClick(b.key(16), Qt::LeftButton);
        CHECK_SENT(b, 0x20AC, QString::fromUtf8("€"));
        QTest::mouseClick(b.key(25), Qt::LeftButton);
        CHECK_SENT(b, 0xB2, QString::fromUtf8("²"));
        // Shown doubled, since a lone '&' on a button would be taken for a mnemonic and not drawn.
        QCOMPARE(b.key(17)->text(), QString("&&"));
        QTest::mouseClick(b.key(17), Qt::LeftButton);
        CHECK_SENT(b, '&', "&");
        QTest::mouseClick(b.key(19), Qt::LeftButton);
        CHECK_SENT(b, '"', "\"");
        QCOMPARE(b.edit->text(), QString::fromUtf8("3€²&\""));

        // Back to the letters: the shift key is a shift again, released.
        QTest::mouseClick(b.fn(3), Qt::LeftButton);
        QCOMPARE(b.fn(3)->text(), QString(".?123"));
        QCOMPARE(b.fn(1)->text(), QString(" "));
        QVERIFY(b.fn(1)->isCheckable());
        QVERIFY(!b.fn(1)->isChecked());
        QVERIFY(!b.fn(1)->icon().isNull());
        QCOMPARE(b.keyTexts(), kAzerty);
        QTest::mouseClick(e, Qt::LeftButton);
        CHECK_SENT(b, 'e', "e");
    }

    void symbolPageFillsTwentyFourKeys()
    {
        Bench b;
        START(b);
        QTest::mouseClick(b.fn(1), Qt::LeftButton);  // shift on the letter page does not change page
        QCOMPARE(b.keyTexts(), kAzerty);
        QTest::mouseClick(b.fn(1), Qt::LeftButton);

        QTest::mouseClick(b.fn(3), Qt::LeftButton);
        QTest::mouseClick(b.fn(1), Qt::LeftButton);
        QCOMPARE(b.fn(1)->text(), QString("123"));
        QVERIFY(!b.fn(1)->isCheckable());
        QCOMPARE(b.keyTexts(24), kSymbols);
        QCOMPARE(b.key(24)->text(), QString("'"));
        QCOMPARE(b.key(25)->text(), QString::fromUtf8("²"));
        QTest::mouseClick(b.key(17), Qt::LeftButton);
        CHECK_SENT(b, '\\', "\\");
        QTest::mouseClick(b.key(11), Qt::LeftButton);
        CHECK_SENT(b, '|', "|");

        QTest::mouseClick(b.fn(1), Qt::LeftButton);
        QCOMPARE(b.fn(1)->text(), QString("#+="));
        QCOMPARE(b.keyTexts(), kNumbers);
        QTest::mouseClick(b.fn(3), Qt::LeftButton);
        QCOMPARE(b.keyTexts(), kAzerty);
        QCOMPARE(b.edit->text(), QString("\\|"));
    }

    void longPressOnEOffersItsAccents()
    {
        Bench b;
        START(b);
        QPushButton* e = b.keyShowing("E");
        QTest::mousePress(e, Qt::LeftButton);
        QTest::qWait(800);
        QVERIFY(b.accentPanel()->isHidden());
        QTRY_VERIFY_WITH_TIMEOUT(b.accentPanel()->isVisible(), 3000);
        QVERIFY(b.accentRow()->isVisible());
        QVERIFY(b.preview()->isHidden());
        QVERIFY(!b.kb->findChild<QTimer*>("longPressTimer")->isActive());
        QCOMPARE(b.accentPanel()->styleSheet(),
                 QString("background-color:rgb(230, 230, 230);border: 2px solid #8f8f91;border-radius: 10px;"));
        const QString accents = QString::fromUtf8("éèêë");
        for (int i = 0; i < RWKVirtualKeyboard::AccentKeyCount; ++i) {
            QCOMPARE(b.accentKey(i)->isVisible(), i < accents.size());
            if (i < accents.size())
                QCOMPARE(b.accentKey(i)->text(), QString(accents.at(i)));
        }
        QVERIFY(b.kb->rect().contains(b.accentPanel()->geometry()));
        QCOMPARE(b.accentRow()->geometry(), b.accentPanel()->geometry());

        QTest::mouseRelease(e, Qt::LeftButton);
        QVERIFY(b.recorder.presses.isEmpty());
        QVERIFY(b.accentPanel()->isVisible());

        QTest::mouseClick(b.accentKey(1), Qt::LeftButton);
        CHECK_SENT(b, 0xE8, QString::fromUtf8("è"));
        QVERIFY(b.accentPanel()->isHidden());
        QVERIFY(b.accentRow()->isHidden());
        QCOMPARE(b.edit->text(), QString::fromUtf8("è"));
        QCOMPARE(QApplication::focusWidget(), b.edit);

        // The next plain click types normally again.
        QTest::mouseClick(e, Qt::LeftButton);
        CHECK_SENT(b, 'e', "e");
    }

    void longPressWithoutAccentsTypesTheLetter()
    {
        Bench b;
        START(b);
        QPushButton* t = b.keyShowing("T");
        QTest::mousePress(t, Qt::LeftButton);
        holdBeyondLongPress();
        QVERIFY(b.accentPanel()->isHidden());
        QVERIFY(b.preview()->isVisible());
        QCOMPARE(b.preview()->text(), QString("t"));
        QTest::mouseRelease(t, Qt::LeftButton);
        CHECK_SENT(b, 't', "t");
        QVERIFY(b.preview()->isHidden());
        QVERIFY(!b.kb->findChild<QTimer*>("longPressTimer")->isActive());
    }

    void longPressWithShiftNeverOpensThePopup()
    {
        Bench b;
        START(b);
        QTest::mouseClick(b.fn(1), Qt::LeftButton);
        QPushButton* e = b.keyShowing("E");
        QTest::mousePress(e, Qt::LeftButton);
        QVERIFY(!b.kb->findChild<QTimer*>("longPressTimer")->isActive());
        QCOMPARE(b.preview()->text(), QString("E"));
        holdBeyondLongPress();
        QVERIFY(b.accentPanel()->isHidden());
        QTest::mouseRelease(e, Qt::LeftButton);
        CHECK_SENT(b, 'E', "E");
    }

    void releasedAwayFromTheKeyOpensNoPopupLater()
    {
        Bench b;
        START(b);
        QPushButton* e = b.keyShowing("E");
        QTest::mousePress(e, Qt::LeftButton);
        // The finger slides off the key: the button sees its release outside and emits no click.
        QTest::mouseRelease(e, Qt::LeftButton, Qt::NoModifier, QPoint(-50, -50));
        QVERIFY(!e->isDown());
        holdBeyondLongPress();
        QVERIFY(b.accentPanel()->isHidden());
        QVERIFY(b.preview()->isHidden());
        QVERIFY(b.recorder.presses.isEmpty());
    }

    void deleteAndSpace()
    {
        Bench b;
        START(b);
        QTest::mouseClick(b.keyShowing("A"), Qt::LeftButton);
        QTest::mouseClick(b.keyShowing("B"), Qt::LeftButton);
        b.recorder.presses.clear();
        QTest::mouseClick(b.fn(2), Qt::LeftButton);
        CHECK_SENT(b, Qt::Key_Backspace, QString(QChar(8)));
        QCOMPARE(b.edit->text(), QString("a"));
        QTest::mouseClick(b.fn(4), Qt::LeftButton);
        CHECK_SENT(b, 32, " ");
        QCOMPARE(b.edit->text(), QString("a "));
        QCOMPARE(QApplication::focusWidget(), b.edit);
        QCOMPARE(b.window.focusWidget(), b.edit);
    }

    void withoutFocusWidgetNothingIsSent()
    {
        Bench b;
        START(b);
        b.edit->clearFocus();
        QCOMPARE(b.window.focusWidget(), nullptr);
        QTest::mouseClick(b.keyShowing("E"), Qt::LeftButton);
        QTest::mouseClick(b.fn(2), Qt::LeftButton);
        QTest::mouseClick(b.fn(4), Qt::LeftButton);
        QVERIFY(b.recorder.presses.isEmpty());
        QVERIFY(b.edit->text().isEmpty());
        QCOMPARE(b.window.focusWidget(), nullptr);
    }

    void qwertyMovesKey19IntoTheThirdRow()
    {
        Bench b;
        START(b);
        QPushButton* k19 = b.key(19);
        QHBoxLayout* row2 = b.row(2);
        QHBoxLayout* row3 = b.row(3);
        QVERIFY(row2 && row3);
        QCOMPARE(row2->indexOf(k19), row2->count() - 1);
        QCOMPARE(row3->indexOf(k19), -1);

        auto checkQwertyLetters = [&] {
            QCOMPARE(b.keyTexts(), kQwerty);
            QCOMPARE(k19->text(), QString("Z"));
            QCOMPARE(row3->indexOf(k19), 2);
            QCOMPARE(row3->indexOf(b.fn(1)), 1);
            QCOMPARE(row3->indexOf(b.key(20)), 3);
            QCOMPARE(row2->indexOf(k19), -1);
            // filler, shift, seven letters, delete, filler; and nine letters above
            QCOMPARE(row3->count(), 11);
            QCOMPARE(row2->count(), 9);
        };
        auto checkSecondRow = [&] {
            QCOMPARE(row2->indexOf(k19), row2->count() - 1);
            QCOMPARE(row2->indexOf(b.key(18)), row2->count() - 2);
            QCOMPARE(row3->indexOf(k19), -1);
            QCOMPARE(row3->count(), 10);
            QCOMPARE(row2->count(), 10);
        };

        b.kb->setKeyboardLayout(0);
        checkQwertyLetters();
        b.kb->setKeyboardLayout(0);
        b.kb->displayAlphabet();
        checkQwertyLetters();
        QTRY_VERIFY(k19->geometry().right() < b.key(20)->geometry().left());
        QTRY_VERIFY(k19->geometry().top() == b.key(20)->geometry().top());

        QTest::mouseClick(k19, Qt::LeftButton);
        CHECK_SENT(b, 'z', "z");

        QTest::mouseClick(b.fn(3), Qt::LeftButton);
        QCOMPARE(k19->text(), QString("\""));
        checkSecondRow();
        QTest::mouseClick(b.fn(1), Qt::LeftButton);
        QCOMPARE(k19->text(), QString(";"));
        checkSecondRow();
        // A layout change on the symbol page shows the number page, its page key reading accordingly.
        b.kb->setKeyboardLayout(0);
        QCOMPARE(b.keyTexts(), kNumbers);
        QCOMPARE(b.fn(1)->text(), QString("#+="));
        checkSecondRow();
        QTest::mouseClick(b.fn(3), Qt::LeftButton);
        checkQwertyLetters();

        b.kb->setKeyboardLayout(1);
        QCOMPARE(b.keyTexts(), kAzerty);
        QCOMPARE(k19->text(), QString("M"));
        checkSecondRow();
        QTRY_VERIFY(k19->geometry().top() == b.key(18)->geometry().top());
    }

    void previewShowsTheKeyAboveIt()
    {
        Bench b;
        START(b);
        QPushButton* e = b.keyShowing("E");
        QPushButton* preview = b.preview();
        QVERIFY(preview != nullptr);
        QCOMPARE(preview->parentWidget(), &b.window);
        QVERIFY(preview->isHidden());

        QTest::mousePress(e, Qt::LeftButton);
        QVERIFY(preview->isVisible());
        QCOMPARE(preview->text(), QString("e"));
        QVERIFY(!preview->isEnabled());
        QCOMPARE(preview->font().pointSize(), 14);
        QVERIFY(preview->font().bold());
        const QRect expected(b.kb->x() + e->x() + e->width() / 2 - 16, b.kb->y() + e->y() - 35, 32, 32);
        QCOMPARE(preview->geometry(), expected);
        QTest::mouseRelease(e, Qt::LeftButton);
        QVERIFY(preview->isHidden());
        CHECK_SENT(b, 'e', "e");

        QPushButton* n = b.keyShowing("N");
        QTest::mousePress(n, Qt::LeftButton);
        QCOMPARE(preview->geometry().topLeft(),
                 QPoint(b.kb->x() + n->x() + n->width() / 2 - 16, b.kb->y() + n->y() - 35));
        QCOMPARE(preview->text(), QString("n"));
        // A release that reaches the keyboard itself hides the preview too.
        QTest::mouseRelease(b.kb, Qt::LeftButton, Qt::NoModifier, QPoint(2, 2));
        QVERIFY(preview->isHidden());
        QTest::mouseRelease(n, Qt::LeftButton);
        CHECK_SENT(b, 'n', "n");

        QTest::mouseClick(b.fn(3), Qt::LeftButton);
        QTest::mousePress(e, Qt::LeftButton);
        QCOMPARE(preview->text(), QString("3"));
        QTest::mouseRelease(e, Qt::LeftButton);
    }

    void accentPopupWidthRule_data()
    {
        QTest::addColumn<int>("n");
        QTest::addColumn<int>("keyboardWidth");
        QTest::addColumn<int>("expected");
        QTest::newRow("4 accents, 640 wide: keys of 38") << 4 << 640 << 152;
        QTest::newRow("4 accents, 200 wide: 22n+4") << 4 << 200 << 92;
        QTest::newRow("1 accent, 417 wide: 25 is not over 25") << 1 << 417 << 26;
        QTest::newRow("1 accent, 434 wide: 26 is over 25") << 1 << 434 << 26;
        QTest::newRow("1 accent, 450 wide: 27") << 1 << 450 << 27;
        QTest::newRow("2 accents, 399 wide: 46 is not over 47") << 2 << 399 << 48;
        QTest::newRow("2 accents, 434 wide: 52") << 2 << 434 << 52;
    }

    void accentPopupWidthRule()
    {
        QFETCH(int, n);
        QFETCH(int, keyboardWidth);
        QFETCH(int, expected);
        QCOMPARE(RWKVirtualKeyboard::accentPopupWidth(n, keyboardWidth), expected);
    }

    void accentPopupTakesItsWidthFromTheKeyboard_data()
    {
        QTest::addColumn<int>("keyboardWidth");
        QTest::addColumn<QString>("letter");
        QTest::addColumn<int>("expected");
        QTest::newRow("E at 640") << 640 << "E" << 152;
        QTest::newRow("E at 200") << 200 << "E" << 92;
        QTest::newRow("C at 417") << 417 << "C" << 26;
        QTest::newRow("O at 640") << 640 << "O" << 76;
    }

    void accentPopupTakesItsWidthFromTheKeyboard()
    {
        QFETCH(int, keyboardWidth);
        QFETCH(QString, letter);
        QFETCH(int, expected);
        Bench b;
        START(b);
        b.kb->resize(keyboardWidth, 240);
        QPushButton* key = b.keyShowing(letter);
        QTest::mousePress(key, Qt::LeftButton);
        QTRY_VERIFY_WITH_TIMEOUT(b.accentPanel()->isVisible(), 3000);
        QCOMPARE(b.accentPanel()->width(), expected);
        QVERIFY(b.accentPanel()->x() >= 0);
        QTest::mouseRelease(key, Qt::LeftButton);
        QVERIFY(b.recorder.presses.isEmpty());
    }

    void screenshots()
    {
        const QString dir = QString::fromLocal8Bit(qgetenv("TOV_ARTIFACT_DIR"));
        if (dir.isEmpty())
            QSKIP("TOV_ARTIFACT_DIR names no folder for the screenshots");
        QVERIFY(QDir(dir).exists());
        Bench b;
        START(b);

        QImage letters = b.kb->grab().toImage();
        QCOMPARE(letters.size(), QSize(640, 240));
        QVERIFY(letters.save(dir + "/keyboard_letters.png"));
        // The two drawn icons really show on their keys.
        for (int f : {1, 2}) {
            const QRect inner = b.fn(f)->geometry().adjusted(8, 8, -8, -8);
            QVERIFY2(darkPixels(letters, inner) > 40, qPrintable(QString("icon of C%1").arg(f)));
        }

        QPushButton* e = b.keyShowing("E");
        QTest::mousePress(e, Qt::LeftButton);
        QVERIFY(b.window.grab().save(dir + "/keyboard_preview.png"));
        QTRY_VERIFY_WITH_TIMEOUT(b.accentPanel()->isVisible(), 3000);
        const QImage accents = b.kb->grab().toImage();
        QVERIFY(accents.save(dir + "/keyboard_accents.png"));
        QVERIFY(accents != letters);
        QTest::mouseRelease(e, Qt::LeftButton);
        QTest::mouseClick(b.accentKey(0), Qt::LeftButton);

        QTest::mouseClick(b.fn(3), Qt::LeftButton);
        QVERIFY(b.kb->grab().save(dir + "/keyboard_numbers.png"));
        QTest::mouseClick(b.fn(1), Qt::LeftButton);
        QVERIFY(b.kb->grab().save(dir + "/keyboard_symbols.png"));
        QCOMPARE(b.edit->text(), QString::fromUtf8("é"));
    }
};

QTEST_MAIN(TestVirtualKeyboard)
#include "test_rwkvirtualkeyboard.moc"
