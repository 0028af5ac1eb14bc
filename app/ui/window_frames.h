/*
** window_frames.h -- window positions and sizes kept between runs.
**
** Each window is saved under its autosave name ("TarnwickContextPanel", "TarnwickPDFPanel", ...)
** as the bytes of QWidget::saveGeometry(), through the model's Settings (the views never open
** QSettings themselves). A window is saved when it is hidden or moved or resized and restored
** once, before it is first shown; unreadable bytes leave the window where the caller put it.
*/
#ifndef TRN_UI_WINDOW_FRAMES_H
#define TRN_UI_WINDOW_FRAMES_H

#include <QObject>
#include <QPointer>
#include <QString>
#include <QTimer>

class QWidget;

class WindowFrame : public QObject
{
    Q_OBJECT

public:
    // Follows window; owned by it.
    WindowFrame(QWidget *window, const QString &autosaveName);

    // Restores the saved frame; false when none was saved (the caller then places the window).
    bool restore();
    void save();
    QString autosaveName() const { return m_name; }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QPointer<QWidget> m_window;
    QString m_name;
    QTimer m_saveTimer; // moves and resizes come in bursts; save once they stop
};

#endif
