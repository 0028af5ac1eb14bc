/*
** system_clipboard.h -- the desktop's clipboard behind the model's Clipboard interface.
*/
#ifndef TRN_UI_SYSTEM_CLIPBOARD_H
#define TRN_UI_SYSTEM_CLIPBOARD_H

#include "clipboard.h"

// QGuiApplication::clipboard(); needs a QGuiApplication.
class SystemClipboard : public Clipboard
{
public:
    void setText(const QString &text) override;
};

#endif
