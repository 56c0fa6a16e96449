// bare_window: the smallest Qt Widgets program that shows a 640x480 window. It does nothing but
// show the window and wait. With --text the window shows one line of text: that is the yardstick
// startup_bench measures tov_test against, since every real screen pays for loading fonts and an
// empty window does not.
#include <QApplication>
#include <QLabel>
#include <QWidget>

#include <cstring>

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    QWidget window;
    window.setWindowTitle(QStringLiteral("bare_window"));
    window.resize(640, 480);
    if (argc > 1 && strcmp(argv[1], "--text") == 0)
        new QLabel(QStringLiteral("Test TOV"), &window);
    window.show();
    return app.exec();
}
