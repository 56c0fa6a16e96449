// On-screen keyboard of the touch screen: letters (AZERTY or QWERTY), numbers, symbols and French
// accents. It never owns the edited text: every key becomes a synthetic key press sent to the
// focus widget of the window given at construction.
#ifndef RWKVIRTUALKEYBOARD_H
#define RWKVIRTUALKEYBOARD_H

#include <QPointer>
#include <QVector>
#include <QWidget>

#include <array>

class QHBoxLayout;
class QLabel;
class QMouseEvent;
class QPushButton;
class QResizeEvent;
class QSignalMapper;
class QTimer;
class QVBoxLayout;

class RWKVirtualKeyboard : public QWidget {
    Q_OBJECT

public:
    static constexpr int KeyCount = 26;
    static constexpr int AccentKeyCount = 10;
    static constexpr int LongPressMs = 1000;

    explicit RWKVirtualKeyboard(QWidget* parent = nullptr);
    ~RWKVirtualKeyboard() override;

    // Non-zero: AZERTY, zero: QWERTY.
    void setKeyboardLayout(int layout);
    void displayAlphabet();
    void displayNumber();
    void displaySpecialChar();
    // Kept as an entry point for callers; the number page is reached through the page key.
    void setDisplayNumber();

public slots:
    void sendChar(int index);
    void buttonPressed(int index);
    void sendAccentedChar(int index);
    void buttonC1Function();
    void buttonC2Function();
    void buttonC3Function();
    void buttonC4Function();
    void displayAccentedChar();

protected:
    void resizeEvent(QResizeEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    void createButtons();
    void createAccentPopup();
    QPushButton* makeKey(QWidget* parent, const QString& name);
    void sendKey(int key, const QString& text);
    void showLetters(const QString& letters);
    void placeKey19(bool inThirdRow);
    void hideAccentPopup();
    void placeAccentPopup(QPushButton* key, int width);
    bool onLetterPage() const;
    bool lowerCaseLetters() const;

    QPointer<QWidget> m_parent;  // target window: its focus widget receives the keys
    QSignalMapper* m_clickMapper = nullptr;
    QSignalMapper* m_pressMapper = nullptr;
    QVector<QPushButton*> m_keys;
    QPushButton* m_c1 = nullptr;  // shift / "#+=" / "123"
    QPushButton* m_c2 = nullptr;  // delete
    QPushButton* m_c3 = nullptr;  // ".?123" / "ABC"
    QPushButton* m_c4 = nullptr;  // space
    QPointer<QPushButton> m_preview;  // child of the target window, so it can float above the keys
    QTimer* m_longPressTimer = nullptr;
    int m_lastKey = 0;
    std::array<QPushButton*, AccentKeyCount> m_accentKeys{};
    QSignalMapper* m_accentMapper = nullptr;
    QLabel* m_accentPanel = nullptr;
    QWidget* m_accentRow = nullptr;
    int m_width = 0;
    int m_height = 0;
    int m_layout = 1;  // AZERTY by default: the operators are French

    QLabel* m_background = nullptr;
    QWidget* m_keyArea = nullptr;
    QVBoxLayout* m_rows = nullptr;
    QHBoxLayout* m_row2 = nullptr;
    QHBoxLayout* m_row3 = nullptr;
};

#endif
