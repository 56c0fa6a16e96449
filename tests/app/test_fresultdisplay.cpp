// The result panel on its own: which lines are red, the newest line in view, clearing.
#include "app/fresultdisplay.h"

#include <QListWidget>
#include <QScrollBar>
#include <QtTest>

class TestResultDisplay : public QObject {
    Q_OBJECT

private slots:
    void onlyLinesStartingWithErreurAreRed()
    {
        fResultDisplay panel;
        auto* list = panel.findChild<QListWidget*>("msgDisplay");
        const QStringList lines = {"ERREUR Echec Test Ecriture fichier .msr", " ERREUR Echec", "erreur minuscule",
                                   "Librairie VITRANOL installée OK", "ERREURS au pluriel", "ERREU"};
        const QList<bool> red = {true, false, false, false, true, false};
        for (const QString& line : lines)
            panel.OnResultDisplay(line);
        QCOMPARE(list->count(), lines.size());
        for (int i = 0; i < lines.size(); ++i) {
            QCOMPARE(list->item(i)->text(), lines[i]);
            const QBrush brush = list->item(i)->foreground();
            QCOMPARE(brush.style(), red[i] ? Qt::SolidPattern : Qt::NoBrush);
            QVERIFY(!red[i] || brush.color() == QColor(Qt::red));
        }
        panel.OnDisplayClear();
        QCOMPARE(list->count(), 0);
    }

    void newestLineStaysVisible()
    {
        fResultDisplay panel;
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        for (int i = 0; i < 300; ++i)
            panel.OnResultDisplay(QString("ligne %1").arg(i));
        auto* list = panel.findChild<QListWidget*>("msgDisplay");
        QTRY_VERIFY(list->verticalScrollBar()->value() > 0);
        QVERIFY(list->viewport()->rect().contains(list->visualItemRect(list->item(299))));
    }
};

QTEST_MAIN(TestResultDisplay)
#include "test_fresultdisplay.moc"
