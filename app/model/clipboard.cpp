#include "clipboard.h"

#include <QClipboard>
#include <QGuiApplication>

Clipboard::~Clipboard() = default;

void SystemClipboard::setText(const QString &text)
{
    QClipboard *clipboard = QGuiApplication::clipboard();
    if (!clipboard) {
        return;
    }
    clipboard->clear();
    clipboard->setText(text);
}
