#include "app/fresultdisplay.h"

#include "ui_fresultdisplay.h"

#include <QBrush>
#include <QListWidgetItem>

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
    auto* item = new QListWidgetItem(_result);
    if (_result.startsWith(QLatin1String("ERREUR"), Qt::CaseSensitive))
        item->setForeground(QBrush(Qt::red, Qt::SolidPattern));
    ui->msgDisplay->insertItem(ui->msgDisplay->count(), item);
    ui->msgDisplay->scrollToBottom();
}

void fResultDisplay::OnDisplayClear()
{
    ui->msgDisplay->clear();
}
