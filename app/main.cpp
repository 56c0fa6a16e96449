// tov_test: the factory test bench of the TOV unit.
#include "app/mainwindow.h"

#include <QApplication>
#include <QCursor>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    // A touch screen: no pointer is ever shown.
    QApplication::setOverrideCursor(QCursor(Qt::BlankCursor));
    auto* window = new MainWindow();
    window->show();
    const int result = app.exec();
    delete window;
    return result;
}
