/*
** prompt_builder.h -- the retrieval-augmented prompt copied to the clipboard.
**
** The text for results r1..rn and query q is
**
**   Based on the following excerpts from my documents, answer my question.\n
**   \n
**   --- Context ---\n
**   \n
**   [<last two path components of r1>, line <r1 line>]\n
**   <r1 snippet, trimmed>\n
**   \n
**   ... (the same for r2..rn)
**   --- Question ---\n
**   \n
**   <q, or "(your question here)" when q is empty>\n
**
** and exactly "No results to include in prompt." when the scope selects nothing.
*/
#ifndef TRN_APP_PROMPT_BUILDER_H
#define TRN_APP_PROMPT_BUILDER_H

#include "search_results.h"

#include <QList>
#include <QString>

// Which results go into the prompt.
enum class PromptScope {
    Pinned,    // the pinned results in pin order
    Top5,      // the first 5 displayed results
    AllVisible // every displayed result in display order
};

// "Pinned", "Top 5", "All Visible" (the labels of the scope menu).
QString promptScopeName(PromptScope scope);
// Every scope in menu order.
QList<PromptScope> allPromptScopes();

// The results a scope selects, in prompt order.
QList<SearchResult> promptResults(PromptScope scope, const QList<SearchResult> &displayed,
                                  const QList<SearchResult> &pinned);

// The prompt text for query from the results the scope selects: displayed is what the results
// list shows, pinned the pinned results (as results) in pin order.
QString buildPrompt(const QString &query, PromptScope scope, const QList<SearchResult> &displayed,
                    const QList<SearchResult> &pinned);

// "[b/c.txt, line 12]" for /a/b/c.txt: the last two components joined by "/", or the whole path
// when it has fewer than two.
QString promptHeaderPath(const QString &filePath);

#endif
