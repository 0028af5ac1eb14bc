#include "missing_folder_bar.h"

#include "app_state.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>

namespace
{

// The nearest directory at or above path that still exists, where the chooser starts.
QString nearestExisting(const QString &path)
{
    QFileInfo at(path);
    while (!at.isDir() && at.absolutePath() != at.absoluteFilePath()) {
        at = QFileInfo(at.absolutePath());
    }
    return at.isDir() ? at.absoluteFilePath() : QDir::homePath();
}

} // namespace

MissingFolderBar::MissingFolderBar(AppState *app, QWidget *parent) : QWidget(parent), m_app(app)
{
    setObjectName(QStringLiteral("missingFolderBar"));
    m_locator = [](QWidget *owner, const QString &missingPath) {
        return QFileDialog::getExistingDirectory(
            owner,
            tr("Where is \u201c%1\u201d now?").arg(QFileInfo(missingPath).fileName()),
            nearestExisting(missingPath));
    };
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(12, 6, 12, 6);
    m_text = new QLabel(this);
    m_text->setObjectName(QStringLiteral("missingFolderText"));
    m_text->setTextFormat(Qt::PlainText);
    layout->addWidget(m_text, 1);
    m_locate = new QPushButton(tr("Locate\u2026"), this);
    m_locate->setObjectName(QStringLiteral("locateMissingButton"));
    layout->addWidget(m_locate);
    m_forget = new QPushButton(tr("Forget"), this);
    m_forget->setObjectName(QStringLiteral("forgetMissingButton"));
    layout->addWidget(m_forget);
    connect(m_locate, &QPushButton::clicked, this, &MissingFolderBar::locate);
    connect(m_forget, &QPushButton::clicked, this, [this] {
        if (m_app && !m_app->missingTabPaths().isEmpty()) {
            m_app->forgetMissingTab(m_app->missingTabPaths().first());
        }
    });
    connect(app, &AppState::missingTabPathsChanged, this, &MissingFolderBar::sync);
    sync();
}

QString MissingFolderBar::message(const QStringList &missing)
{
    if (missing.isEmpty()) {
        return QString();
    }
    const QFileInfo first(missing.first());
    const QString text = tr("The folder \u201c%1\u201d is no longer in %2 (moved or deleted).")
                             .arg(first.fileName(), QDir::toNativeSeparators(first.path()));
    return missing.size() == 1
               ? text
               : text + QLatin1Char(' ')
                     + tr("%n more saved folder(s) missing.", "", int(missing.size() - 1));
}

void MissingFolderBar::sync()
{
    const QStringList missing = m_app ? m_app->missingTabPaths() : QStringList();
    m_text->setText(message(missing));
    m_text->setToolTip(missing.isEmpty() ? QString() : missing.first());
    setVisible(!missing.isEmpty());
}

void MissingFolderBar::locate()
{
    if (!m_app || m_app->missingTabPaths().isEmpty()) {
        return;
    }
    const QString missing = m_app->missingTabPaths().first();
    const QString found = m_locator(this, missing);
    if (!found.isEmpty()) {
        m_app->locateMissingTab(missing, found);
    }
}
