/*
** appearance.h -- light and dark for the whole application.
**
** The "appearance" setting picks the palette: "system" keeps the desktop's own style and palette,
** "light" and "dark" force Fusion with a light or a dark palette, and "opposite" forces the
** reverse of what the desktop uses. The desktop's choice is read once, from the palette the
** application started with, so forcing a palette never changes what "system" means.
*/
#ifndef TRN_UI_APPEARANCE_H
#define TRN_UI_APPEARANCE_H

#include <QObject>
#include <QPalette>
#include <QPointer>
#include <QString>

class Settings;

class Appearance : public QObject
{
    Q_OBJECT

public:
    // Remembers the current style and palette as the system's, applies settings' appearance and
    // follows its changes. Needs a QApplication.
    explicit Appearance(Settings *settings, QObject *parent = nullptr);

    // Applies an appearance value at once ("system", "light", "dark", "opposite").
    void apply(const QString &appearance);
    // True when the palette in use is dark.
    static bool paletteIsDark(const QPalette &palette);
    static QPalette darkPalette();
    static QPalette lightPalette();

private:
    QPointer<Settings> m_settings;
    QString m_systemStyle;
    QPalette m_systemPalette;
    bool m_systemIsDark = false;
};

#endif
