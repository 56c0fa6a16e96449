#include "keyboard/rwkvirtualkeyboard.h"

#include <QCoreApplication>
#include <QHBoxLayout>
#include <QIcon>
#include <QKeyEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPushButton>
#include <QResizeEvent>
#include <QSignalMapper>
#include <QTimer>
#include <QVBoxLayout>

namespace {

const char* const kAzerty = "AZERTYUIOPQSDFGHJKLMWXCVBN";
const char* const kQwerty = "QWERTYUIOPASDFGHJKLZXCVBNM";
// Several of these are outside Latin-1's printable ASCII, hence 16-bit code units.
const char16_t kNumbers[RWKVirtualKeyboard::KeyCount] = {
    u'1', u'2', u'3', u'4', u'5', u'6', u'7', u'8', u'9', u'0', u'-', u'+', u':',
    u';', u'(', u')', u'€', u'&', u'@', u'"', u'.', u',', u'?', u'!', u'\'', u'²'};
const char* const kSymbols = "[]{}#%^-+=_|~<>$/\\.;,?!*";  // 24 keys; keys 24 and 25 keep their text

struct AccentSet {
    char letter;
    const char* choices;  // UTF-8
};
const AccentSet kAccents[] = {
    {'A', "àâäã"}, {'C', "ç"}, {'E', "éèêë"}, {'I', "îï"}, {'N', "ñ"}, {'O', "ôö"}, {'U', "ùûüµ"}, {'Y', "ÿ"},
};

const char* const kArrowIcon = ":/new/prefix1/gui_images/arrow.png";
const char* const kDeleteIcon = ":/new/prefix1/gui_images/delArrow.png";
const char* const kLetterPageKey = ".?123";
const char* const kSymbolPagesKey = "ABC";
const char* const kNumberToSymbols = "#+=";
const char* const kSymbolsToNumbers = "123";
const char* const kBackgroundStyle = "background-color:rgb(105, 105, 105);";
const char* const kPopupStyle =
    "background-color:rgb(230, 230, 230);border: 2px solid #8f8f91;border-radius: 10px;";
// The margin draws the dark background between keys, since the rows themselves have no spacing.
const char* const kKeyStyle =
    "QPushButton { background-color: rgb(226, 226, 226); color: black; border: 1px solid rgb(60, 60, 60);"
    " border-radius: 5px; margin: 2px; padding: 0px; }"
    "QPushButton:pressed { background-color: rgb(255, 255, 255); }"
    "QPushButton:checked { background-color: rgb(150, 190, 240); }";
const char* const kPreviewStyle =
    "QPushButton { color: black; background-color: white; border: 1px solid rgb(60, 60, 60);"
    " border-radius: 4px; padding: 0px; }";

// Letter keys weigh twice the filler at each end of the third row, so that a row of seven letters
// plus shift and delete lines up with the ten-key rows above.
constexpr int kKeyStretch = 2;
constexpr int kFillerStretch = 1;
constexpr int kPreviewSize = 32;

// A lone '&' on a button is a mnemonic marker and would show nothing; doubled it shows, and the
// first character of the text is still the one to send.
QString keyLabel(QChar c)
{
    return c == QLatin1Char('&') ? QStringLiteral("&&") : QString(c);
}

QString accentsFor(QChar letter)
{
    for (const AccentSet& set : kAccents) {
        if (letter == QLatin1Char(set.letter))
            return QString::fromUtf8(set.choices);
    }
    return QString();
}

// Popup width for n accented choices on a keyboard `keyboardWidth` pixels wide: keys of 6 % of
// the width, or 22 pixels each when those would be narrower.
int accentPopupWidth(int n, int keyboardWidth)
{
    const int keyWidth = keyboardWidth * 6 / 100;
    return n * keyWidth > 22 * n + 3 ? n * keyWidth : 22 * n + 4;
}

}  // namespace

RWKVirtualKeyboard::RWKVirtualKeyboard(QWidget* parent)
    : QWidget(parent), m_parent(parent)
{
    Q_INIT_RESOURCE(keyboard);
    createButtons();
}

RWKVirtualKeyboard::~RWKVirtualKeyboard()
{
    // The preview belongs to the target window, which may outlive the keyboard.
    delete m_preview;
}

QPushButton* RWKVirtualKeyboard::makeKey(QWidget* parent, const QString& name)
{
    auto* key = new QPushButton(parent);
    key->setObjectName(name);
    key->setFocusPolicy(Qt::NoFocus);
    key->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    key->setMinimumSize(1, 1);
    QFont keyFont(font());
    keyFont.setPointSize(16);
    keyFont.setBold(true);
    key->setFont(keyFont);
    return key;
}

void RWKVirtualKeyboard::createButtons()
{
    setMinimumSize(50, 150);
    setStyleSheet(kKeyStyle);
    m_width = width();
    m_height = height();

    m_background = new QLabel(this);
    m_background->setObjectName("keyboardBackground");
    m_background->setStyleSheet(kBackgroundStyle);
    m_background->resize(size());

    m_keyArea = new QWidget(this);
    m_keyArea->setObjectName("keyArea");
    m_keyArea->resize(size());

    m_clickMapper = new QSignalMapper(this);
    m_pressMapper = new QSignalMapper(this);
    for (int i = 0; i < KeyCount; ++i) {
        QPushButton* key = makeKey(m_keyArea, QString("key%1").arg(i));
        m_keys.append(key);
        connect(key, &QPushButton::clicked, m_clickMapper, qOverload<>(&QSignalMapper::map));
        m_clickMapper->setMapping(key, i);
        connect(key, &QPushButton::pressed, m_pressMapper, qOverload<>(&QSignalMapper::map));
        m_pressMapper->setMapping(key, i);
    }
    connect(m_clickMapper, &QSignalMapper::mappedInt, this, &RWKVirtualKeyboard::sendChar);
    connect(m_pressMapper, &QSignalMapper::mappedInt, this, &RWKVirtualKeyboard::buttonPressed);

    m_c1 = makeKey(m_keyArea, "keyC1");
    m_c1->setText(" ");
    m_c1->setIcon(QIcon(kArrowIcon));
    m_c2 = makeKey(m_keyArea, "keyC2");
    m_c2->setIcon(QIcon(kDeleteIcon));
    m_c3 = makeKey(m_keyArea, "keyC3");
    m_c3->setText(kLetterPageKey);
    m_c3->setMaximumWidth(m_width * 19 / 100);
    m_c4 = makeKey(m_keyArea, "keyC4");
    m_c4->setText("Space");
    connect(m_c1, &QPushButton::clicked, this, &RWKVirtualKeyboard::buttonC1Function);
    connect(m_c2, &QPushButton::clicked, this, &RWKVirtualKeyboard::buttonC2Function);
    connect(m_c3, &QPushButton::clicked, this, &RWKVirtualKeyboard::buttonC3Function);
    connect(m_c4, &QPushButton::clicked, this, &RWKVirtualKeyboard::buttonC4Function);

    m_rows = new QVBoxLayout(m_keyArea);
    m_rows->setObjectName("keyRows");
    m_rows->setSpacing(0);
    m_rows->setContentsMargins(0, 0, 0, 0);
    QHBoxLayout* row[4];
    for (int r = 0; r < 4; ++r) {
        row[r] = new QHBoxLayout;
        row[r]->setObjectName(QString("keyRow%1").arg(r + 1));
        row[r]->setSpacing(0);
        row[r]->setContentsMargins(0, 0, 0, 0);
        m_rows->addLayout(row[r]);
    }
    m_row2 = row[1];
    m_row3 = row[2];
    for (int i = 0; i < 10; ++i)
        row[0]->addWidget(m_keys[i], kKeyStretch);
    for (int i = 10; i < 20; ++i)
        row[1]->addWidget(m_keys[i], kKeyStretch);
    // Shift must stay the second item: QWERTY slides key 19 in right after it.
    row[2]->addStretch(kFillerStretch);
    row[2]->addWidget(m_c1, kKeyStretch);
    for (int i = 20; i < KeyCount; ++i)
        row[2]->addWidget(m_keys[i], kKeyStretch);
    row[2]->addWidget(m_c2, kKeyStretch);
    row[2]->addStretch(kFillerStretch);
    row[3]->addWidget(m_c3, 1);
    row[3]->addWidget(m_c4, 4);

    m_preview = new QPushButton(m_parent ? m_parent.data() : this);
    m_preview->setObjectName("keyPreview");
    m_preview->setFocusPolicy(Qt::NoFocus);
    m_preview->setStyleSheet(kPreviewStyle);
    m_preview->hide();

    m_longPressTimer = new QTimer(this);
    m_longPressTimer->setObjectName("longPressTimer");
    connect(m_longPressTimer, &QTimer::timeout, this, &RWKVirtualKeyboard::displayAccentedChar);

    createAccentPopup();

    m_c1->setCheckable(true);
    displayAlphabet();
}

void RWKVirtualKeyboard::createAccentPopup()
{
    m_accentPanel = new QLabel(this);
    m_accentPanel->setObjectName("accentPanel");
    m_accentPanel->setStyleSheet(kPopupStyle);
    m_accentPanel->hide();

    m_accentRow = new QWidget(this);
    m_accentRow->setObjectName("accentRow");
    auto* rowLayout = new QHBoxLayout(m_accentRow);
    rowLayout->setObjectName("accentRowLayout");
    rowLayout->setContentsMargins(5, 0, 5, 0);
    rowLayout->setSpacing(1);
    m_accentMapper = new QSignalMapper(this);
    for (int i = 0; i < AccentKeyCount; ++i) {
        QPushButton* key = makeKey(m_accentRow, QString("accentKey%1").arg(i));
        rowLayout->addWidget(key);
        connect(key, &QPushButton::clicked, m_accentMapper, qOverload<>(&QSignalMapper::map));
        m_accentMapper->setMapping(key, i);
        m_accentKeys[i] = key;
    }
    connect(m_accentMapper, &QSignalMapper::mappedInt, this, &RWKVirtualKeyboard::sendAccentedChar);
    m_accentRow->hide();
}

bool RWKVirtualKeyboard::onLetterPage() const
{
    return m_c3->text() == QLatin1String(kLetterPageKey);
}

bool RWKVirtualKeyboard::lowerCaseLetters() const
{
    return !m_c1->isChecked() && onLetterPage();
}

void RWKVirtualKeyboard::sendKey(int key, const QString& text)
{
    QWidget* window = m_parent ? m_parent.data() : this;
    QWidget* target = window->focusWidget();
    if (target == nullptr)
        return;
    QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier, text, false, 1);
    QCoreApplication::sendEvent(target, &press);
}

void RWKVirtualKeyboard::hideAccentPopup()
{
    m_accentPanel->hide();
    m_accentRow->hide();
}

void RWKVirtualKeyboard::buttonPressed(int index)
{
    if (index < 0 || index >= KeyCount)
        return;
    if (!m_c1->isChecked())
        m_longPressTimer->start(LongPressMs);
    hideAccentPopup();
    m_lastKey = index;
    if (m_preview.isNull())
        return;

    QPushButton* key = m_keys[index];
    m_preview->setText(lowerCaseLetters() ? key->text().toLower() : key->text());
    m_preview->setEnabled(false);
    QFont previewFont(m_preview->font());
    previewFont.setPointSize(14);
    previewFont.setBold(true);
    m_preview->setFont(previewFont);
    QWidget* window = m_preview->parentWidget();
    const QPoint keyPos = window->isAncestorOf(key) ? key->mapTo(window, QPoint(0, 0))
                                                    : window->mapFromGlobal(key->mapToGlobal(QPoint(0, 0)));
    m_preview->setGeometry(keyPos.x() + key->width() / 2 - kPreviewSize / 2, keyPos.y() - 35, kPreviewSize,
                           kPreviewSize);
    m_preview->setAutoFillBackground(false);
    m_preview->show();
    m_preview->raise();
}

void RWKVirtualKeyboard::sendChar(int index)
{
    m_longPressTimer->stop();
    if (index >= 0 && index < KeyCount && m_accentPanel->isHidden()) {
        const QString text = m_keys[index]->text();
        if (!text.isEmpty()) {
            const QChar c = lowerCaseLetters() ? text.at(0).toLower() : text.at(0);
            sendKey(c.unicode(), QString(c));
        }
    }
    if (m_preview)
        m_preview->hide();
}

void RWKVirtualKeyboard::displayAccentedChar()
{
    if (m_lastKey < 0 || m_lastKey >= KeyCount)
        return;
    QPushButton* key = m_keys[m_lastKey];
    if (!key->isDown()) {
        // Released away from the key: no click will come to stop the timer or hide the preview.
        m_longPressTimer->stop();
        if (m_preview)
            m_preview->hide();
        return;
    }
    const QString text = key->text();
    const QString accents = text.isEmpty() ? QString() : accentsFor(text.at(0).toUpper());
    if (accents.isEmpty())
        return;

    if (m_preview)
        m_preview->hide();
    m_longPressTimer->stop();
    const int n = qMin(int(accents.size()), int(AccentKeyCount));
    m_accentPanel->setStyleSheet(kPopupStyle);
    for (int i = 0; i < AccentKeyCount; ++i) {
        m_accentKeys[i]->setText(i < n ? QString(accents.at(i)) : QString());
        m_accentKeys[i]->setVisible(i < n);
    }
    placeAccentPopup(key, accentPopupWidth(n, m_width));
    m_accentPanel->show();
    m_accentRow->show();
    m_accentPanel->raise();
    m_accentRow->raise();
}

void RWKVirtualKeyboard::placeAccentPopup(QPushButton* key, int width)
{
    // Over the row above the key, or below it from the top row, and never past the keyboard's sides.
    const QPoint keyPos = key->mapTo(this, QPoint(0, 0));
    const int height = key->height();
    int x = keyPos.x() + key->width() / 2 - width / 2;
    x = qMax(0, qMin(x, m_width - width));
    int y = keyPos.y() - height;
    if (y < 0)
        y = keyPos.y() + height;
    const QRect popup(x, y, width, height);
    m_accentPanel->setGeometry(popup);
    m_accentRow->setGeometry(popup);
}

void RWKVirtualKeyboard::sendAccentedChar(int index)
{
    if (index >= 0 && index < AccentKeyCount) {
        const QString text = m_accentKeys[index]->text();
        if (!text.isEmpty())
            sendKey(text.at(0).unicode(), QString(text.at(0)));
    }
    hideAccentPopup();
}

void RWKVirtualKeyboard::buttonC1Function()
{
    if (onLetterPage())
        return;  // on the letter page the checked state itself is the shift
    if (m_c1->text() == QLatin1String(kNumberToSymbols)) {
        m_c1->setText(kSymbolsToNumbers);
        m_c1->setCheckable(false);
        displaySpecialChar();
    } else {
        m_c1->setText(kNumberToSymbols);
        m_c1->setIcon(QIcon());
        m_c1->setCheckable(false);
        displayNumber();
    }
}

void RWKVirtualKeyboard::buttonC2Function()
{
    sendKey(Qt::Key_Backspace, QString(QChar(8)));
}

void RWKVirtualKeyboard::buttonC3Function()
{
    if (onLetterPage()) {
        m_c3->setText(kSymbolPagesKey);
        m_c1->setText(kNumberToSymbols);
        m_c1->setIcon(QIcon());
        m_c1->setCheckable(false);
        displayNumber();
    } else {
        m_c3->setText(kLetterPageKey);
        m_c1->setText(" ");  // a blank, so that only the arrow shows
        m_c1->setIcon(QIcon(kArrowIcon));
        m_c1->setCheckable(true);
        displayAlphabet();
    }
}

void RWKVirtualKeyboard::buttonC4Function()
{
    sendKey(32, " ");
}

void RWKVirtualKeyboard::showLetters(const QString& letters)
{
    for (int i = 0; i < KeyCount && i < letters.size(); ++i)
        m_keys[i]->setText(keyLabel(letters.at(i)));
}

void RWKVirtualKeyboard::placeKey19(bool inThirdRow)
{
    // Taken out of both rows first, so that any sequence of pages and layouts leaves it in one place.
    QPushButton* key = m_keys[19];
    m_row2->removeWidget(key);
    m_row3->removeWidget(key);
    if (inThirdRow)
        m_row3->insertWidget(2, key, kKeyStretch);
    else
        m_row2->addWidget(key, kKeyStretch);
}

void RWKVirtualKeyboard::displayAlphabet()
{
    showLetters(QString::fromLatin1(m_layout ? kAzerty : kQwerty));
    placeKey19(m_layout == 0);
}

void RWKVirtualKeyboard::displayNumber()
{
    for (int i = 0; i < KeyCount; ++i)
        m_keys[i]->setText(keyLabel(QChar(kNumbers[i])));
    placeKey19(false);
}

void RWKVirtualKeyboard::displaySpecialChar()
{
    showLetters(QString::fromLatin1(kSymbols));
    placeKey19(false);
}

void RWKVirtualKeyboard::setDisplayNumber()
{
    // Does nothing, on purpose: callers may call it, the page only changes through the page keys.
}

void RWKVirtualKeyboard::setKeyboardLayout(int layout)
{
    m_layout = layout;
    if (onLetterPage()) {
        displayAlphabet();
    } else {
        // From the symbol page too: the page key then reads what the number page expects.
        m_c1->setText(kNumberToSymbols);
        displayNumber();
    }
}

void RWKVirtualKeyboard::resizeEvent(QResizeEvent* event)
{
    event->accept();
    m_width = event->size().width();
    m_height = event->size().height();
    m_background->resize(event->size());
    m_keyArea->resize(event->size());
    m_c3->setMaximumWidth(m_width * 19 / 100);
    const int iconSide = qBound(12, m_height / 8, 32);
    m_c1->setIconSize(QSize(iconSide, iconSide));
    m_c2->setIconSize(QSize(iconSide, iconSide));
}

void RWKVirtualKeyboard::mouseReleaseEvent(QMouseEvent* event)
{
    event->accept();
    if (m_preview)
        m_preview->hide();
}
