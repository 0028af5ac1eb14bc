/*
** walk_options.h -- the engine's walk options (which files a walk reads) from the settings.
*/
#ifndef TRN_APP_WALK_OPTIONS_H
#define TRN_APP_WALK_OPTIONS_H

#include "tarnwick.h"

#include <QByteArray>
#include <QSet>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

class Settings;

// The walk options of the settings (extraExtensions, excludePatterns, maxFileSizeMB), holding
// the strings that options() points into; not copyable, so the pointers stay valid.
class FileWalkOptions
{
public:
    FileWalkOptions(const QSet<QString> &extraExtensions, const QStringList &excludePatterns,
                    qint64 maxFileSize);
    static std::unique_ptr<FileWalkOptions> fromSettings(const Settings &settings);
    FileWalkOptions(const FileWalkOptions &) = delete;
    FileWalkOptions &operator=(const FileWalkOptions &) = delete;

    const TrnWalkOptions *options() const { return &m_options; }
    uint64_t maxFileSize() const { return m_options.max_file_size; }

private:
    std::vector<QByteArray> m_strings;
    std::vector<const char *> m_extensions;
    std::vector<const char *> m_patterns;
    TrnWalkOptions m_options = {};
};

#endif
