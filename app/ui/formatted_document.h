/*
** formatted_document.h -- DOCX, ODT and EPUB files as formatted text for the preview pane.
**
** The file's text is read from its XML (through libzip and libxml2, as the index reads it) into a
** QTextDocument: one block per paragraph, headings as heading blocks (level 1 to 6) in larger
** bold type, list items indented with a bullet, bold and italic runs kept, line breaks inside a
** paragraph as line separators. Images, tables' grid and styles beyond these are left out.
**
**   DOCX   word/document.xml; a paragraph is a heading when its outline level, or its style's
**          (word/styles.xml: w:outlineLvl, or a style named "heading N" or "Title"), says so
**   ODT    content.xml; <text:h text:outline-level="N"> are headings, <text:list-item> bulleted
**   EPUB   the chapters of the spine in reading order, each read by libxml2's HTML parser:
**          h1-h6, p, li and the other block elements, b/strong and i/em
**
** Each block with text records in QTextBlock::userState() the line that its first line has in
** the text the index extracts from the same file (counted by the same rules: a line per
** paragraph, a line per forced break, a chapter's <title> as a line of its own), so a result's
** line number finds its block (blockForLine). Blocks without text hold -1.
*/
#ifndef TRN_UI_FORMATTED_DOCUMENT_H
#define TRN_UI_FORMATTED_DOCUMENT_H

#include <QString>
#include <QStringList>
#include <QTextBlock>

class QTextDocument;

// Clears document and fills it with the formatted text of the DOCX, ODT or EPUB file at path
// (recognised by its contents, not its name). False when the file is not such a container or its
// text cannot be read; the document is then empty.
bool readFormattedDocument(const QString &path, QTextDocument *document);

// The block holding line lineNumber (1-based) of the indexed text: the last block whose first
// line is at or before it; the first block with text for lineNumber < 1; an invalid block when
// no block carries a line.
QTextBlock blockForLine(const QTextDocument *document, int lineNumber);

// The headings above block, outermost first: for a paragraph under "2 Install" > "From source",
// {"2 Install", "From source"}. A heading's own path ends with itself.
QStringList headingPath(const QTextBlock &block);

#endif
