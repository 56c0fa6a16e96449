// The result panel: one line per test result or form message, newest at the bottom, failure
// lines (those starting with "ERREUR") in red.
#ifndef TOV_APP_FRESULTDISPLAY_H
#define TOV_APP_FRESULTDISPLAY_H

#include <QString>
#include <QWidget>

namespace Ui {
class fResultDisplay;
}

class fResultDisplay : public QWidget {
    Q_OBJECT

public:
    explicit fResultDisplay(QWidget* parent = nullptr);
    ~fResultDisplay() override;

public slots:
    void OnResultDisplay(QString _result);
    void OnDisplayClear();

private:
    Ui::fResultDisplay* ui;
};

#endif
