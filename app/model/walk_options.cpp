/*
** walk_options.cpp -- the walk options as the engine takes them, from the settings.
*/
#include "walk_options.h"

#include "settings.h"

FileWalkOptions::FileWalkOptions(const QSet<QString> &extraExtensions,
                                 const QStringList &excludePatterns, qint64 maxFileSize)
{
    // Every string is stored first, so the pointers taken below never move.
    m_strings.reserve(size_t(extraExtensions.size() + excludePatterns.size()));
    for (const QString &ext : extraExtensions) {
        m_strings.push_back(ext.toUtf8());
    }
    for (const QString &pattern : excludePatterns) {
        m_strings.push_back(pattern.toUtf8());
    }
    const size_t extensionCount = size_t(extraExtensions.size());
    for (size_t i = 0; i < m_strings.size(); i++) {
        (i < extensionCount ? m_extensions : m_patterns).push_back(m_strings[i].constData());
    }
    m_options.extra_extensions = m_extensions.empty() ? nullptr : m_extensions.data();
    m_options.extra_extension_count = int32_t(m_extensions.size());
    m_options.exclude_patterns = m_patterns.empty() ? nullptr : m_patterns.data();
    m_options.exclude_pattern_count = int32_t(m_patterns.size());
    m_options.max_file_size = maxFileSize > 0 ? uint64_t(maxFileSize) : uint64_t(TRN_FILE_SIZE_MAX);
}

std::unique_ptr<FileWalkOptions> FileWalkOptions::fromSettings(const Settings &settings)
{
    return std::make_unique<FileWalkOptions>(settings.effectiveExtraExtensions(),
                                             settings.effectiveExcludePatterns(),
                                             settings.effectiveMaxFileSize());
}
