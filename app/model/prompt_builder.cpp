#include "prompt_builder.h"

#include <QStringList>

QString promptScopeName(PromptScope scope)
{
    switch (scope) {
    case PromptScope::Pinned:
        return QStringLiteral("Pinned");
    case PromptScope::Top5:
        return QStringLiteral("Top 5");
    case PromptScope::AllVisible:
        return QStringLiteral("All Visible");
    }
    return QStringLiteral("Top 5");
}

QList<PromptScope> allPromptScopes()
{
    return {PromptScope::Pinned, PromptScope::Top5, PromptScope::AllVisible};
}

QString promptHeaderPath(const QString &filePath)
{
    const QStringList parts = filePath.split(QLatin1Char('/'));
    if (parts.size() < 2) {
        return filePath;
    }
    return parts.at(parts.size() - 2) + QLatin1Char('/') + parts.last();
}

QList<SearchResult> promptResults(PromptScope scope, const QList<SearchResult> &displayed,
                                  const QList<SearchResult> &pinned)
{
    switch (scope) {
    case PromptScope::Pinned:
        return pinned;
    case PromptScope::Top5:
        return displayed.mid(0, 5);
    case PromptScope::AllVisible:
        return displayed;
    }
    return {};
}

QString buildPrompt(const QString &query, PromptScope scope, const QList<SearchResult> &displayed,
                    const QList<SearchResult> &pinned)
{
    const QList<SearchResult> selected = promptResults(scope, displayed, pinned);
    if (selected.isEmpty()) {
        return QStringLiteral("No results to include in prompt.");
    }
    QString text = QStringLiteral("Based on the following excerpts from my documents, answer my "
                                  "question.\n\n--- Context ---\n\n");
    for (const SearchResult &result : selected) {
        text += QLatin1Char('[') + promptHeaderPath(result.filePath) + QStringLiteral(", line ")
                + QString::number(result.lineNumber) + QStringLiteral("]\n");
        text += result.snippet.trimmed();
        text += QStringLiteral("\n\n");
    }
    text += QStringLiteral("--- Question ---\n\n");
    text += query.isEmpty() ? QStringLiteral("(your question here)") : query;
    text += QLatin1Char('\n');
    return text;
}
