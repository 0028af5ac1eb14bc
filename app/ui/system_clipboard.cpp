#include "system_clipboard.h"

#include <QClipboard>
#include <QGuiApplication>

void SystemClipboard::setText(const QString &text)
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    if (!clipboard) {
        return;
    }
    clipboard->clear();
    clipboard->setText(text);
}
