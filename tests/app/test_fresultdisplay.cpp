// The result panel on its own: colours, scrolling, the form's settings.
#include "app/fresultdisplay.h"

#include <QListWidget>
#include <QScrollBar>
#include <QtTest>

class TestResultDisplay : public QObject {
    Q_OBJECT

private:
    static QListWidget* list(fResultDisplay& panel) { return panel.findChild<QListWidget*>("msgDisplay"); }

private slots:
    void formSettings()
    {
        fResultDisplay panel;
        QCOMPARE(panel.objectName(), QString("fResultDisplay"));
        QCOMPARE(panel.windowTitle(), QString("Form"));
        QCOMPARE(panel.size(), QSize(386, 341));
        QListWidget* msg = list(panel);
        QVERIFY(msg != nullptr);
        QCOMPARE(msg->font().pointSize(), 12);
        QCOMPARE(msg->font().weight(), int(QFont::Bold));
        QCOMPARE(msg->verticalScrollBarPolicy(), Qt::ScrollBarAlwaysOn);
        QCOMPARE(msg->editTriggers(), QAbstractItemView::NoEditTriggers);
        QCOMPARE(msg->selectionMode(), QAbstractItemView::SingleSelection);
        QCOMPARE(msg->resizeMode(), QListView::Adjust);
        QCOMPARE(msg->count(), 0);
    }

    void onlyLinesStartingWithErreurAreRed()
    {
        fResultDisplay panel;
        const QStringList lines = {"ERREUR Echec Test Ecriture fichier .msr", " ERREUR Echec", "erreur minuscule",
                                   "Librairie VITRANOL installée OK", "ERREURS au pluriel", "ERREU"};
        for (const QString& line : lines)
            panel.OnResultDisplay(line);
        QListWidget* msg = list(panel);
        QCOMPARE(msg->count(), lines.size());
        const QList<bool> red = {true, false, false, false, true, false};
        for (int i = 0; i < lines.size(); ++i) {
            QCOMPARE(msg->item(i)->text(), lines[i]);
            const QBrush brush = msg->item(i)->foreground();
            if (red[i]) {
                QCOMPARE(brush.color(), QColor(Qt::red));
                QCOMPARE(brush.style(), Qt::SolidPattern);
            } else {
                QCOMPARE(brush.style(), Qt::NoBrush);
            }
        }
    }

    void newestLineStaysVisible()
    {
        fResultDisplay panel;
        panel.show();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        for (int i = 0; i < 300; ++i)
            panel.OnResultDisplay(QString("ligne %1").arg(i));
        QListWidget* msg = list(panel);
        QTRY_VERIFY(msg->verticalScrollBar()->value() > 0);
        const QRect last = msg->visualItemRect(msg->item(299));
        QVERIFY(msg->viewport()->rect().contains(last));
    }

    void clearEmptiesAndCanRepeat()
    {
        fResultDisplay panel;
        panel.OnDisplayClear();
        QCOMPARE(list(panel)->count(), 0);
        panel.OnResultDisplay("a");
        panel.OnResultDisplay("ERREUR b");
        panel.OnDisplayClear();
        QCOMPARE(list(panel)->count(), 0);
        panel.OnDisplayClear();
        QCOMPARE(list(panel)->count(), 0);
    }
};

QTEST_MAIN(TestResultDisplay)
#include "test_fresultdisplay.moc"
