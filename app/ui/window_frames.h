/*
** window_frames.h -- window positions and sizes kept between runs, and windows that fit the
** screen.
**
** Each window is saved under its autosave name ("TarnwickMainWindow", "TarnwickSettingsWindow",
*...)
** as the bytes of QWidget::saveGeometry(), through the model's Settings (the views never open
** QSettings themselves). A window is saved when it is hidden or moved or resized and restored
** once, before it is first shown. A saved frame is restored only when it lies wholly within the
** available area of a screen (a monitor unplugged since, a smaller resolution); unreadable bytes
** or a frame that no longer fits leave the window where the caller put it.
**
** showOnScreen() shows a window fully on the screen that holds the main window: its frame
** (title bar included) is shrunk and moved into that screen's available geometry, and a window
** without a restored frame opens centred over the main window.
*/
#ifndef TRN_UI_WINDOW_FRAMES_H
#define TRN_UI_WINDOW_FRAMES_H

#include <QMargins>
#include <QObject>
#include <QPointer>
#include <QRect>
#include <QString>
#include <QTimer>

class QWidget;
class Settings;

class WindowFrame : public QObject
{
    Q_OBJECT

public:
    // Follows window; owned by it. The frame is kept in settings, which outlive the window.
    WindowFrame(QWidget *window, const QString &autosaveName, Settings *settings);

    // Restores the saved frame when it fits a screen; false when none was saved or it does not
    // fit (the caller then places the window).
    bool restore();
    bool wasRestored() const { return m_restored; }
    void save();
    QString autosaveName() const { return m_name; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QPointer<QWidget> m_window;
    QString m_name;
    Settings *m_settings;
    bool m_restored = false;
    QTimer m_saveTimer; // moves and resizes come in bursts; save once they stop
};

// frame shrunk to at most available's size and moved the least distance that puts it inside
// available. An invalid available returns frame unchanged.
QRect clampToArea(const QRect &frame, const QRect &available);

// The window's frame margins (title bar and borders) as the window manager draws them: the
// window's own once it has been shown, else the anchor's, else a typical title bar.
QMargins frameMargins(const QWidget *window, const QWidget *anchor);

// The available geometry of the screen that holds anchor (the window's own screen when anchor
// is NULL).
QRect availableArea(const QWidget *window, const QWidget *anchor);

// Moves and shrinks window so that its frame lies within availableArea(window, anchor).
void fitOnScreen(QWidget *window, const QWidget *anchor);

// Shows window, raised and active: on its first showing centred over anchor unless its
// WindowFrame restored a saved frame; every time fitted to anchor's screen, and fitted again
// once the window manager has framed it.
void showOnScreen(QWidget *window, QWidget *anchor);

// For dialogs that place themselves (centred on their parent when shown): fits window to
// anchor's screen once it is shown and again once the window manager has framed it.
void fitOnceShown(QWidget *window, QWidget *anchor);

#endif
