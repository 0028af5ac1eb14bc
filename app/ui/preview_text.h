/*
** preview_text.h -- the preview's reading of text: a file's bytes decoded as a desktop reader
** would, and a hit's snippet turned back into what can be found in the shown document.
*/
#ifndef TRN_UI_PREVIEW_TEXT_H
#define TRN_UI_PREVIEW_TEXT_H

#include "search_results.h"

#include <QByteArray>
#include <QString>

#include <optional>

// The text of a file's bytes: UTF-8 when they are, else Windows-1252; nullopt for binary data (a
// zero byte early on).
std::optional<QString> decodeText(const QByteArray &bytes);
// HTML in its declared charset, else as decodeText reads it.
std::optional<QString> decodeHtml(const QByteArray &bytes);
// The words of the snippet's matched line (the line holding the first match of the query, else
// its longest line), at most `count`, as a pattern that lets any white space separate them. An
// ellipsis at the start marks a cut word, which is left out. Empty when there are no words.
QString snippetPattern(const QString &snippet, const QString &query, SearchMode mode, int count);
// The first words of a source line as the rendered document shows them (markup removed), or ""
// when the line shows nothing distinctive.
QString renderedFragment(const QString &sourceLine, bool html);

#endif
