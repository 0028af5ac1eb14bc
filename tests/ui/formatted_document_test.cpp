/*
** formatted_document_test.cpp -- DOCX, ODT and EPUB files built here, read for the preview:
** headings, list items and emphasis, and every paragraph's line against the line the index's
** own extraction gives the same text.
*/
#include "formatted_document.h"
#include "text/files.h"

#include <QTemporaryDir>
#include <QTextBlock>
#include <QTextDocument>
#include <QtTest>

#include <zip.h>

namespace
{

using Members = QList<std::pair<QByteArray, QByteArray>>;

bool writeZip(const QString &path, const Members &members)
{
    int error = 0;
    zip_t *z = zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    if (!z) {
        return false;
    }
    for (const auto &[name, bytes] : members) {
        zip_source_t *src = zip_source_buffer(z, bytes.constData(), bytes.size(), 0);
        if (!src || zip_file_add(z, name.constData(), src, ZIP_FL_ENC_UTF_8) < 0) {
            zip_discard(z);
            return false;
        }
    }
    return zip_close(z) == 0;
}

const QByteArray kWordNs =
    "xmlns:w=\"http://schemas.openxmlformats.org/wordprocessingml/2006/main\"";

QByteArray docxParagraph(const QByteArray &style, const QByteArray &runs, bool list = false)
{
    QByteArray props;
    if (!style.isEmpty()) {
        props += "<w:pStyle w:val=\"" + style + "\"/>";
    }
    if (list) {
        props += "<w:numPr><w:ilvl w:val=\"0\"/><w:numId w:val=\"1\"/></w:numPr>";
    }
    return "<w:p><w:pPr>" + props + "</w:pPr>" + runs + "</w:p>";
}

QByteArray run(const QByteArray &text, const QByteArray &props = QByteArray())
{
    return "<w:r><w:rPr>" + props + "</w:rPr><w:t xml:space=\"preserve\">" + text + "</w:t></w:r>";
}

// A report whose heading styles have ids that are not "HeadingN" (as a localised word processor
// writes them), a title, a list, a forced break, an empty paragraph and emphasis.
Members docxMembers()
{
    const QByteArray styles =
        "<?xml version=\"1.0\"?><w:styles " + kWordNs
        + "><w:style w:type=\"paragraph\" w:styleId=\"Titel\"><w:name w:val=\"Title\"/></w:style>"
          "<w:style w:type=\"paragraph\" w:styleId=\"berschrift1\"><w:name w:val=\"heading 1\"/>"
          "</w:style><w:style w:type=\"paragraph\" w:styleId=\"berschrift2\">"
          "<w:name w:val=\"heading 2\"/></w:style><w:style w:type=\"paragraph\" "
          "w:styleId=\"Sub2\"><w:name w:val=\"Sub two\"/><w:basedOn w:val=\"berschrift2\"/>"
          "</w:style></w:styles>";
    const QByteArray body =
        docxParagraph("Titel", run("Field report")) + docxParagraph("", run("Written in spring."))
        + docxParagraph("berschrift1", run("Soil"))
        + docxParagraph("", run("The ") + run("clay", "<w:b/>") + run(" holds water."))
        + docxParagraph("", QByteArray()) + docxParagraph("berschrift2", run("Drainage"))
        + docxParagraph("", run("Dig a trench") + "<w:r><w:br/></w:r>" + run("then gravel."))
        + docxParagraph("", run("Stones"), true) + docxParagraph("", run("Sand"), true)
        + docxParagraph("Sub2", run("Pipes")) + docxParagraph("", run("Lay them deep."))
        + docxParagraph("berschrift1", run("Water")) + docxParagraph("", run("Collect rain."));
    return {{"word/document.xml",
             "<?xml version=\"1.0\"?><w:document " + kWordNs + "><w:body>" + body
                 + "</w:body></w:document>"},
            {"word/styles.xml", styles}};
}

const QByteArray kOdtContent =
    "<?xml version=\"1.0\"?><office:document-content "
    "xmlns:office=\"urn:oasis:names:tc:opendocument:xmlns:office:1.0\" "
    "xmlns:text=\"urn:oasis:names:tc:opendocument:xmlns:text:1.0\"><office:body>"
    "<office:text><text:h text:outline-level=\"1\">Meeting notes</text:h>"
    "<text:p>Budget<text:s text:c=\"3\"/>approved<text:line-break/>next week</text:p>"
    "<text:h text:outline-level=\"2\">Actions</text:h><text:list><text:list-item>"
    "<text:p>Call the builder</text:p></text:list-item><text:list-item><text:p>Order "
    "tiles</text:p></text:list-item></text:list><text:p/><text:p>End.</text:p>"
    "</office:text></office:body></office:document-content>";

// A package document at the top, a navigation page and a picture that the spine leaves out, and
// chapters whose names need decoding.
const Members kEpubMembers = {
    {"META-INF/container.xml",
     "<container><rootfiles><rootfile full-path=\"book.opf\"/></rootfiles></container>"},
    {"book.opf",
     "<package><manifest><item id=\"nav\" href=\"nav.xhtml\"/><item id=\"pic\" "
     "href=\"Images/cover.jpg\"/><item id=\"p2\" href=\"Text/part%202.xhtml\"/><item "
     "id=\"p1\" href=\"Text/part%201.xhtml#start\"/></manifest><spine><itemref idref=\"p1\"/>"
     "<itemref idref=\"p2\"/></spine></package>"},
    {"nav.xhtml", "<html><body><ol><li>Contents</li></ol></body></html>"},
    {"Text/part 1.xhtml",
     "<html><head><title>The Book</title></head><body><h1>Chapter One</h1>"
     "<p>It was a <em>dark</em>\n   night.</p><div><p>Rain<br/>fell.</p></div>"
     "<ul><li><p>wind</p></li><li>cold</li></ul></body></html>"},
    {"Text/part 2.xhtml",
     "<html><head><title>The Book</title></head><body><h1>Chapter Two</h1>"
     "<h2>Dawn</h2><p>Morning&nbsp;came.</p></body></html>"}};

// The three documents of these tests, written into dir.
bool writeDocuments(const QString &dir)
{
    return writeZip(dir + QStringLiteral("/report.docx"), docxMembers())
           && writeZip(dir + QStringLiteral("/notes.odt"), {{"content.xml", kOdtContent}})
           && writeZip(dir + QStringLiteral("/book.epub"), kEpubMembers);
}

// The index's text of the file, line by line (the lines are 1-based, index 0 is line 1).
QStringList indexedLines(const QString &path, TrnFileType type)
{
    ExtractedText text;
    if (extract_file_text(QFile::encodeName(path).constData(), type, 0, &text)
        != TRN_FILE_STATUS_INDEXABLE) {
        return {};
    }
    const QString all = QString::fromUtf8(text.text, qsizetype(text.length));
    extracted_text_free(&text);
    return all.split(QLatin1Char('\n'));
}

// (heading level, text) of every block with text; a list item's text keeps its bullet.
QList<std::pair<int, QString>> outline(const QTextDocument &doc)
{
    QList<std::pair<int, QString>> blocks;
    for (QTextBlock b = doc.begin(); b.isValid(); b = b.next()) {
        if (!b.text().isEmpty()) {
            blocks.append({b.blockFormat().headingLevel(), b.text()});
        }
    }
    return blocks;
}

QTextBlock blockWithText(const QTextDocument &doc, const QString &text)
{
    for (QTextBlock b = doc.begin(); b.isValid(); b = b.next()) {
        if (b.text().contains(text)) {
            return b;
        }
    }
    return QTextBlock();
}

} // namespace

class FormattedDocumentTest : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(writeDocuments(m_dir.path()));
    }

    void docxKeepsHeadingsListsAndEmphasis()
    {
        const QString path = m_dir.filePath(QStringLiteral("report.docx"));
        QTextDocument doc;
        QVERIFY(readFormattedDocument(path, &doc));
        const QString bullet = QStringLiteral("\u2022  ");
        const QList<std::pair<int, QString>> expected = {
            {1, "Field report"},
            {0, "Written in spring."},
            {1, "Soil"},
            {0, "The clay holds water."},
            {2, "Drainage"},
            {0, QStringLiteral("Dig a trench\u2028then gravel.")},
            {0, bullet + "Stones"},
            {0, bullet + "Sand"},
            {2, "Pipes"}, // a style based on heading 2
            {0, "Lay them deep."},
            {1, "Water"},
            {0, "Collect rain."}};
        QCOMPARE(outline(doc), expected);
        // The bold run, and only it.
        const QTextBlock clay = blockWithText(doc, QStringLiteral("clay"));
        QStringList bold;
        for (auto it = clay.begin(); !it.atEnd(); ++it) {
            if (it.fragment().charFormat().fontWeight() == QFont::Bold) {
                bold.append(it.fragment().text());
            }
        }
        QCOMPARE(bold, QStringList{"clay"});
        // "Pipes" is a second-level heading like "Drainage", so it follows it rather than
        // nesting under it.
        QCOMPARE(headingPath(blockWithText(doc, QStringLiteral("Lay them"))),
                 (QStringList{"Soil", "Pipes"}));
        QCOMPARE(headingPath(blockWithText(doc, QStringLiteral("then gravel"))),
                 (QStringList{"Soil", "Drainage"}));
        QCOMPARE(headingPath(blockWithText(doc, QStringLiteral("Written"))),
                 QStringList{"Field report"});
    }

    void odtAndEpubKeepTheirHeadings()
    {
        const QString odt = m_dir.filePath(QStringLiteral("notes.odt"));
        QTextDocument doc;
        QVERIFY(readFormattedDocument(odt, &doc));
        const QString bullet = QStringLiteral("\u2022  ");
        QCOMPARE(
            outline(doc),
            (QList<std::pair<int, QString>>{{1, "Meeting notes"},
                                            {0, QStringLiteral("Budget   approved\u2028next week")},
                                            {2, "Actions"},
                                            {0, bullet + "Call the builder"},
                                            {0, bullet + "Order tiles"},
                                            {0, "End."}}));

        const QString epub = m_dir.filePath(QStringLiteral("book.epub"));
        QVERIFY(readFormattedDocument(epub, &doc));
        QCOMPARE(outline(doc),
                 (QList<std::pair<int, QString>>{{1, "Chapter One"},
                                                 {0, "It was a dark night."},
                                                 {0, QStringLiteral("Rain\u2028fell.")},
                                                 {0, bullet + "wind"},
                                                 {0, bullet + "cold"},
                                                 {1, "Chapter Two"},
                                                 {2, "Dawn"},
                                                 {0, "Morning came."}}));
        QCOMPARE(headingPath(blockWithText(doc, QStringLiteral("Morning"))),
                 (QStringList{"Chapter Two", "Dawn"}));
    }

    // Every line of the index's text with words in it finds the block that shows it.
    void everyIndexedLineFindsItsParagraph_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<int>("type");
        QTest::newRow("docx") << "report.docx" << int(TRN_FILE_TYPE_DOCX);
        QTest::newRow("odt") << "notes.odt" << int(TRN_FILE_TYPE_ODT);
        QTest::newRow("epub") << "book.epub" << int(TRN_FILE_TYPE_EPUB);
    }
    void everyIndexedLineFindsItsParagraph()
    {
        QFETCH(QString, name);
        QFETCH(int, type);
        const QString path = m_dir.filePath(name);
        const QStringList lines = indexedLines(path, TrnFileType(type));
        QVERIFY(lines.size() > 5);
        QTextDocument doc;
        QVERIFY(readFormattedDocument(path, &doc));
        int checked = 0;
        for (int i = 0; i < lines.size(); ++i) {
            const QString line = lines.at(i).simplified();
            if (line.isEmpty() || line == QLatin1String("The Book")) {
                continue; // a chapter's title is a line of the index the preview does not show
            }
            const QString shown =
                blockForLine(&doc, i + 1).text().replace(QChar::LineSeparator, QLatin1Char('\n'));
            QVERIFY2(shown.contains(lines.at(i)),
                     qPrintable(QStringLiteral("line %1 \"%2\" found \"%3\"")
                                    .arg(i + 1)
                                    .arg(lines.at(i), shown)));
            checked++;
        }
        QVERIFY(checked >= 5);
    }

    void whatIsNoDocumentIsRefused()
    {
        QTextDocument doc;
        doc.setPlainText(QStringLiteral("left over"));
        QVERIFY(writeFile(m_dir.filePath(QStringLiteral("plain.docx")), "not a zip"));
        QVERIFY(!readFormattedDocument(m_dir.filePath(QStringLiteral("plain.docx")), &doc));
        QVERIFY(doc.isEmpty());
        QVERIFY(writeZip(m_dir.filePath(QStringLiteral("other.zip")), {{"readme.txt", "hi"}}));
        QVERIFY(!readFormattedDocument(m_dir.filePath(QStringLiteral("other.zip")), &doc));
        QVERIFY(!readFormattedDocument(m_dir.filePath(QStringLiteral("missing.odt")), &doc));
        QVERIFY(!blockForLine(&doc, 1).isValid());
    }

private:
    static bool writeFile(const QString &path, const QByteArray &bytes)
    {
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
    }
    QTemporaryDir m_dir;
};

QTEST_MAIN(FormattedDocumentTest)
#include "formatted_document_test.moc"
