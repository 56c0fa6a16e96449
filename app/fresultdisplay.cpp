#include "app/fresultdisplay.h"

#include "ui_fresultdisplay.h"

#include <QBrush>
#include <QListWidgetItem>

#include <cstdio>

fResultDisplay::fResultDisplay(QWidget* parent)
    : QWidget(parent)
    , ui(new Ui::fResultDisplay)
{
    ui->setupUi(this);
    ui->msgDisplay->clear();
}

fResultDisplay::~fResultDisplay()
{
    delete ui;
}

void fResultDisplay::OnResultDisplay(QString _result)
{
    // The panel's lines also go to the bench's output: on a unit whose screen nobody watches (a
    // rack of boards on a serial console), the console log is the record of the run.
    std::printf("[fResultDisplay] %s\n", _result.toUtf8().constData());
    std::fflush(stdout);
    auto* item = new QListWidgetItem(_result);
    if (_result.startsWith(QLatin1String("ERREUR"), Qt::CaseSensitive))
        item->setForeground(QBrush(Qt::red, Qt::SolidPattern));
    ui->msgDisplay->insertItem(ui->msgDisplay->count(), item);
    ui->msgDisplay->scrollToBottom();
}

void fResultDisplay::OnDisplayClear()
{
    std::printf("[fResultDisplay] cleared\n");
    std::fflush(stdout);
    ui->msgDisplay->clear();
}
