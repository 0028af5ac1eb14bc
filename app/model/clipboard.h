/*
** clipboard.h -- where "Copy Prompt" puts its text. The model only knows this interface; the
** application gives it the system clipboard (system_clipboard.h, in the views), tests give it a
** recorder.
*/
#ifndef TRN_APP_CLIPBOARD_H
#define TRN_APP_CLIPBOARD_H

#include <QString>

class Clipboard
{
public:
    virtual ~Clipboard();
    // Clears the clipboard and puts text on it as plain text.
    virtual void setText(const QString &text) = 0;
};

#endif
