// tov_test: the factory test bench of the TOV unit.
#include "app/mainwindow.h"

#include <QApplication>
#include <QCursor>
#if QT_VERSION_MAJOR == 5
#include "app/touchpanel.h"
#endif

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    // A touch screen: no pointer is ever shown.
    QApplication::setOverrideCursor(QCursor(Qt::BlankCursor));
#if QT_VERSION_MAJOR == 5
    // Qt 6's linuxfb reads tslib itself when asked to; Debian's Qt 5 leaves it to the bench.
    if (qEnvironmentVariableIntValue("QT_QPA_FB_TSLIB"))
        new TouchPanel(&app);
#endif
    auto* window = new MainWindow();
    window->show();
    const int result = app.exec();
    delete window;
    return result;
}
