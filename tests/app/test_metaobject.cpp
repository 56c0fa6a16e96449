// Signals and slots keep their names and parameter names: other code and the on-screen form
// connect to them by name.
#include "app/fresultdisplay.h"
#include "app/mainwindow.h"
#include "autotest/cautotestthread.h"

#include <QMetaMethod>
#include <QtTest>

namespace {

// "sig(int _name)" for each signal or slot the class itself declares, in meta-object order.
QStringList ownMethods(const QMetaObject& meta, QMetaMethod::MethodType type)
{
    QStringList methods;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        const QMetaMethod method = meta.method(i);
        if (method.methodType() != type)
            continue;
        QStringList params;
        const QList<QByteArray> types = method.parameterTypes();
        const QList<QByteArray> names = method.parameterNames();
        for (int p = 0; p < types.size(); ++p)
            params << QString("%1 %2").arg(QString(types[p]), QString(names[p])).trimmed();
        methods << QString("%1(%2)").arg(QString(method.name()), params.join(", "));
    }
    return methods;
}

} // namespace

class TestMetaObject : public QObject {
    Q_OBJECT

private slots:
    void mainWindow()
    {
        const QMetaObject& meta = MainWindow::staticMetaObject;
        QCOMPARE(ownMethods(meta, QMetaMethod::Signal),
                 QStringList({"sigDisplayResult(QString _result)", "sigOnStartTest()", "sigRebootTov()",
                              "sigResetBenchmark(bool _state)"}));
        QCOMPARE(ownMethods(meta, QMetaMethod::Slot),
                 QStringList({"OnEndBenchMark()", "OnStackIndexChanged(int aIndex)", "OnDisplayResult(QString)",
                              "OnStartTest()", "On_ThreadEnd(int _status)", "OnRebootTov()",
                              "OnResetBenchMark()"}));
    }

    void resultDisplay()
    {
        const QMetaObject& meta = fResultDisplay::staticMetaObject;
        QCOMPARE(ownMethods(meta, QMetaMethod::Signal), QStringList());
        QCOMPARE(ownMethods(meta, QMetaMethod::Slot),
                 QStringList({"OnResultDisplay(QString _result)", "OnDisplayClear()"}));
    }

    void testThread()
    {
        const QMetaObject& meta = cAutoTestThread::staticMetaObject;
        QCOMPARE(ownMethods(meta, QMetaMethod::Signal),
                 QStringList({"sig_ThreadEnd(int _error)", "sig_ThreadUpdText(QString _msgTxt)"}));
        QCOMPARE(ownMethods(meta, QMetaMethod::Slot),
                 QStringList({"OnFinish()", "OnResetState(bool _state)"}));
    }
};

QTEST_GUILESS_MAIN(TestMetaObject)
#include "test_metaobject.moc"
