// bare_window: the smallest Qt Widgets program that shows a 640x480 window, the yardstick that
// startup_bench measures tov_test against. It does nothing but show the window and wait.
#include <QApplication>
#include <QWidget>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QWidget window;
    window.setWindowTitle(QStringLiteral("bare_window"));
    window.resize(640, 480);
    window.show();
    return app.exec();
}
