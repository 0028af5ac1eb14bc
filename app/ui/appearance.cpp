/*
** appearance.cpp -- applies the appearance setting to the application's style and palette.
*/
#include "appearance.h"

#include "settings.h"

#include <QApplication>
#include <QColor>
#include <QStyle>
#include <QStyleFactory>

Appearance::Appearance(Settings *settings, QObject *parent)
    : QObject(parent), m_settings(settings), m_systemPalette(QApplication::palette())
{
    if (QApplication::style()) {
        m_systemStyle = QApplication::style()->name();
    }
    m_systemIsDark = paletteIsDark(m_systemPalette);
    apply(settings->appearance());
    connect(settings, &Settings::appearanceChanged, this, [this] {
        if (m_settings) {
            apply(m_settings->appearance());
        }
    });
}

bool Appearance::paletteIsDark(const QPalette &palette)
{
    return palette.color(QPalette::Window).lightness() < 128;
}

void Appearance::apply(const QString &appearance)
{
    const std::optional<bool> dark = appearanceIsDark(appearance, m_systemIsDark);
    if (!dark) {
        if (!m_systemStyle.isEmpty() && QApplication::style()->name() != m_systemStyle) {
            QApplication::setStyle(QStyleFactory::create(m_systemStyle));
        }
        QApplication::setPalette(m_systemPalette);
        return;
    }
    // Desktop styles may draw with their own colours; Fusion draws with the palette alone.
    if (QApplication::style()->name().compare(QLatin1String("fusion"), Qt::CaseInsensitive) != 0) {
        QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
    }
    QApplication::setPalette(*dark ? darkPalette() : lightPalette());
}

QPalette Appearance::lightPalette()
{
    QPalette p(QColor(0xef, 0xef, 0xef), QColor(0xf6, 0xf5, 0xf4));
    p.setColor(QPalette::Window, QColor(0xf6, 0xf5, 0xf4));
    p.setColor(QPalette::WindowText, QColor(0x24, 0x24, 0x24));
    p.setColor(QPalette::Base, Qt::white);
    p.setColor(QPalette::AlternateBase, QColor(0xf4, 0xf4, 0xf2));
    p.setColor(QPalette::Text, QColor(0x24, 0x24, 0x24));
    p.setColor(QPalette::Button, QColor(0xef, 0xee, 0xec));
    p.setColor(QPalette::ButtonText, QColor(0x24, 0x24, 0x24));
    p.setColor(QPalette::ToolTipBase, QColor(0xff, 0xff, 0xdc));
    p.setColor(QPalette::ToolTipText, Qt::black);
    p.setColor(QPalette::Highlight, QColor(0x35, 0x84, 0xe4));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::Link, QColor(0x1a, 0x5f, 0xb4));
    p.setColor(QPalette::PlaceholderText, QColor(0x24, 0x24, 0x24, 110));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0x24, 0x24, 0x24, 100));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0x24, 0x24, 0x24, 100));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0x24, 0x24, 0x24, 100));
    return p;
}

QPalette Appearance::darkPalette()
{
    const QColor window(0x30, 0x30, 0x30);
    const QColor text(0xee, 0xee, 0xee);
    QPalette p(QColor(0x3a, 0x3a, 0x3a), window);
    p.setColor(QPalette::Window, window);
    p.setColor(QPalette::WindowText, text);
    p.setColor(QPalette::Base, QColor(0x24, 0x24, 0x24));
    p.setColor(QPalette::AlternateBase, QColor(0x2c, 0x2c, 0x2c));
    p.setColor(QPalette::Text, text);
    p.setColor(QPalette::Button, QColor(0x3a, 0x3a, 0x3a));
    p.setColor(QPalette::ButtonText, text);
    p.setColor(QPalette::BrightText, QColor(0xff, 0x7b, 0x63));
    p.setColor(QPalette::ToolTipBase, QColor(0x1e, 0x1e, 0x1e));
    p.setColor(QPalette::ToolTipText, text);
    p.setColor(QPalette::Highlight, QColor(0x35, 0x84, 0xe4));
    p.setColor(QPalette::HighlightedText, Qt::white);
    p.setColor(QPalette::Link, QColor(0x78, 0xae, 0xed));
    p.setColor(QPalette::LinkVisited, QColor(0xb0, 0x8c, 0xe0));
    p.setColor(QPalette::PlaceholderText, QColor(0xee, 0xee, 0xee, 110));
    p.setColor(QPalette::Light, QColor(0x50, 0x50, 0x50));
    p.setColor(QPalette::Midlight, QColor(0x44, 0x44, 0x44));
    p.setColor(QPalette::Mid, QColor(0x28, 0x28, 0x28));
    p.setColor(QPalette::Dark, QColor(0x1c, 0x1c, 0x1c));
    p.setColor(QPalette::Shadow, QColor(0x10, 0x10, 0x10));
    p.setColor(QPalette::Disabled, QPalette::WindowText, QColor(0xee, 0xee, 0xee, 100));
    p.setColor(QPalette::Disabled, QPalette::Text, QColor(0xee, 0xee, 0xee, 100));
    p.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(0xee, 0xee, 0xee, 100));
    p.setColor(QPalette::Disabled, QPalette::Base, QColor(0x2a, 0x2a, 0x2a));
    return p;
}
