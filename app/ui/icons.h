/*
** icons.h -- icons from the desktop's icon theme. Where the theme has none, the Qt style's
** standard pixmap stands in, and where that is missing too the caller's button shows its text.
*/
#ifndef TRN_UI_ICONS_H
#define TRN_UI_ICONS_H

#include "tarnwick.h"

#include <QIcon>
#include <QString>
#include <QStringList>
#include <QStyle>

// Sets Adwaita as the fallback theme when the platform names none; call once after the
// QApplication exists.
void installIconThemeFallback();

// The application's own icon, drawn at every size from 16 to 256 pixels, for the windows.
QIcon applicationIcon();

// The theme icon `name`, else the style's `fallback` (pass QStyle::SP_CustomBase for none);
// may be null.
QIcon themedIcon(const QString &name, QStyle::StandardPixmap fallback = QStyle::SP_CustomBase);
// The first of names that the theme has (themes differ in what they call an icon), else as above.
QIcon themedIcon(const QStringList &names, QStyle::StandardPixmap fallback = QStyle::SP_CustomBase);

// The theme names of a file type's icon, best first (text-x-generic for the types without one).
QStringList fileTypeIconNames(TrnFileType type);

// A one-colour (symbolic) icon drawn in the palette's button text colour, so that an enabled
// button's icon has the contrast of its text in light and dark appearances alike (themes draw
// symbolic icons in one fixed grey). The disabled state is derived from it as for any icon.
// Coloured and null icons are returned as they are.
QIcon paletteIcon(const QIcon &source, const QPalette &palette);

#endif
