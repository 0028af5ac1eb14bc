/*
** icons.cpp -- theme icons with fallbacks.
*/
#include "icons.h"

#include <QApplication>
#include <QDir>
#include <QStandardPaths>

QIcon applicationIcon()
{
    // The sizes rendered from desktop/tarnwick.svg into the resource "app_icon".
    static const int kSizes[] = {16, 24, 32, 48, 64, 128, 256};
    Q_INIT_RESOURCE(app_icon);
    QIcon icon;
    for (int size : kSizes) {
        icon.addFile(QStringLiteral(":/icons/app/%1.png").arg(size), QSize(size, size));
    }
    return icon;
}

void installIconThemeFallback()
{
    // Without a desktop's platform theme (offscreen, bare window managers) Qt searches only its
    // own resources; add the XDG icon folders.
    QStringList paths = QIcon::themeSearchPaths();
    for (const QString &data :
         QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation)) {
        const QString icons = QDir(data).filePath(QStringLiteral("icons"));
        if (!paths.contains(icons) && QDir(icons).exists()) {
            paths.append(icons);
        }
    }
    QIcon::setThemeSearchPaths(paths);
    if (QIcon::fallbackThemeName().isEmpty() || QIcon::fallbackThemeName() == "hicolor") {
        QIcon::setFallbackThemeName(QStringLiteral("Adwaita"));
    }
    if (QIcon::themeName().isEmpty() || QIcon::themeName() == "hicolor") {
        for (const QString &path : paths) {
            if (QDir(path + QStringLiteral("/Adwaita")).exists()) {
                QIcon::setThemeName(QStringLiteral("Adwaita"));
                break;
            }
        }
    }
}

QIcon themedIcon(const QString &name, QStyle::StandardPixmap fallback)
{
    QIcon icon = name.isEmpty() ? QIcon() : QIcon::fromTheme(name);
    if (icon.isNull() && fallback != QStyle::SP_CustomBase && QApplication::style()) {
        icon = QApplication::style()->standardIcon(fallback);
    }
    return icon;
}

QIcon themedIcon(const QStringList &names, QStyle::StandardPixmap fallback)
{
    for (const QString &name : names) {
        if (QIcon::hasThemeIcon(name)) {
            return QIcon::fromTheme(name);
        }
    }
    return themedIcon(QString(), fallback);
}
