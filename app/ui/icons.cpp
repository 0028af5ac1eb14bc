/*
** icons.cpp -- theme icons with fallbacks.
*/
#include "icons.h"

#include <QApplication>
#include <QDir>
#include <QImage>
#include <QPainter>
#include <QPalette>
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

QStringList fileTypeIconNames(TrnFileType type)
{
    switch (type) {
    case TRN_FILE_TYPE_PDF:
        return {QStringLiteral("application-pdf"), QStringLiteral("x-office-document")};
    case TRN_FILE_TYPE_HTML:
        return {QStringLiteral("text-html")};
    case TRN_FILE_TYPE_SOURCE:
        return {QStringLiteral("text-x-script")};
    case TRN_FILE_TYPE_DOCX:
    case TRN_FILE_TYPE_ODT:
    case TRN_FILE_TYPE_EPUB:
        return {QStringLiteral("x-office-document"), QStringLiteral("text-x-generic")};
    case TRN_FILE_TYPE_BINARY:
        return {QStringLiteral("application-x-executable")};
    default:
        return {QStringLiteral("text-x-generic")};
    }
}

namespace
{

// True when every visible pixel is a shade of grey: a symbolic icon, drawn in one colour that
// the theme chose for a light background.
bool isMonochrome(const QIcon &icon)
{
    const QImage image =
        icon.pixmap(QSize(24, 24)).toImage().convertToFormat(QImage::Format_ARGB32);
    if (image.isNull()) {
        return false;
    }
    for (int y = 0; y < image.height(); y++) {
        for (int x = 0; x < image.width(); x++) {
            const QColor c = image.pixelColor(x, y);
            if (c.alpha() > 32 && c.hsvSaturation() > 40) {
                return false;
            }
        }
    }
    return true;
}

} // namespace

QIcon paletteIcon(const QIcon &source, const QPalette &palette)
{
    if (source.isNull() || !isMonochrome(source)) {
        return source;
    }
    const QColor colour = palette.color(QPalette::Active, QPalette::ButtonText);
    QIcon tinted;
    for (int side : {16, 20, 22, 24, 32, 48}) {
        for (qreal ratio : {1.0, 2.0}) {
            QPixmap pixmap = source.pixmap(QSize(side, side), ratio);
            if (pixmap.isNull()) {
                continue;
            }
            QPainter painter(&pixmap);
            painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
            painter.fillRect(QRect(QPoint(0, 0), pixmap.size()), colour);
            painter.end();
            tinted.addPixmap(pixmap, QIcon::Normal);
        }
    }
    return tinted;
}
