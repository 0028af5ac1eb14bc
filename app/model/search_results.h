/*
** search_results.h -- what a search answers with, in the application's terms: the query modes,
** one hit copied out of the engine, and how hits are laid out by file.
*/
#ifndef TRN_APP_SEARCH_RESULTS_H
#define TRN_APP_SEARCH_RESULTS_H

#include "tarnwick.h"

#include <QList>
#include <QMetaType>
#include <QString>

#include <optional>

// The query modes. The value is the mode of trn_search: Semantic searches every file
// (TRN_SEARCH_SEMANTIC_ALL), so it answers with as many results as asked for, Keyword ranks by
// words (BM25), Hybrid fuses the two rankings. Hybrid is the default.
enum class SearchMode {
    Text = TRN_SEARCH_TEXT,
    Regex = TRN_SEARCH_REGEX,
    Keyword = TRN_SEARCH_KEYWORD,
    Hybrid = TRN_SEARCH_HYBRID,
    Semantic = TRN_SEARCH_SEMANTIC_ALL
};

// "Hybrid", "Semantic", "Keyword", "Text", "Regex": the picker's labels and the names stored in
// the search history (older histories hold only the last three, which still decode).
QString searchModeName(SearchMode mode);
// The mode with that name (exact spelling), or nullopt.
std::optional<SearchMode> searchModeFromName(const QString &name);
// Every mode in the picker's order: Hybrid, Semantic, Keyword, Text, Regex.
QList<SearchMode> allSearchModes();

// One search hit, copied out of the engine (the engine reuses its snippet buffers).
struct SearchResult {
    QString id;       // the chunk key, "<path>:<ordinal>"; stable for the same chunk of a file
    QString filePath; // empty when the engine had none
    QString snippet;
    float score = 0.0f;
    int chunkIndex = 0;
    int lineNumber = 0;
    int fileType = 0; // a TrnFileType value
    // On a file's row of a search laid out by file: how many more of its passages matched.
    int moreInFile = 0;
    // The indexed directory the result comes from.
    QString folder;
    // PDF: the page of the match and its line there; 0 when the engine could not tell.
    int page = 0;
    int pageLine = 0;
    // DOCX, ODT, EPUB: the headings above the match, outermost first ("A \u203a B"); may be empty.
    QString headingPath;

    bool operator==(const SearchResult &other) const = default;
};

// How a search's answer is laid out: one row per file, the file's best passage (the default of
// the application), or every matching passage.
enum class ResultLayout { ByFile, AllPassages };

// Nullopt when the engine can run query in mode (trn_check_query), else why in one line for the
// user: a modified: date it cannot read, or "Invalid regular expression: ..." .
std::optional<QString> queryError(const QString &query, SearchMode mode);

// passages laid out by file: each file's first passage in order with moreInFile counting its
// others, at most k files.
QList<SearchResult> groupByFile(const QList<SearchResult> &passages, int k);

Q_DECLARE_METATYPE(SearchResult)

#endif
