/*
** known_item_bench.cpp -- how often each search mode puts the right file first, on any directory.
**
**   known_item_bench DIR [--weights W] [--files N] [--seed S] [--chunk C] [--overlap O]
**                        [--sweep] [--dump FILE] [--corpus FILE] [--questions FILE]
**
** Known-item queries written as people write them, each asked against the text with its own line
** taken out, so that no mode can find the query copied verbatim:
**   HTML      a reference page's one-line summary (the text after the dash in "NAME — summary"
**             right after the first heading), else the first heading (levels 1 to 4) without
**             its section number ("9.4. String Functions and Operators" asks "String Functions
**             and Operators"). Every line holding the query is removed from the page.
**   Markdown  the first "# " heading, removed.
**   Go        the first sentence of a function's doc comment ("//" lines right above a line
**             starting "func "), without the function's name when it opens the sentence
**             ("ReadFile reads the named file" asks "reads the named file").
**   Other     the first sentence of a "/" "**" doc comment (Javadoc, JSDoc, Doxygen) right above a
**   source    declaration with a parameter list, its markup read as text ("{@code x}" as "x").
**             For source, the comment lines that hold the sentence are removed, and one function
**             per file is drawn with the seed.
** Only queries of at least two words (four for source) count. The indexable files under DIR
** (names beginning with "." skipped) are sorted, shuffled with the seed (default 1) and the first
** N (default 300) that give a query are indexed; each is the answer to its own query.
**
** --questions FILE asks hand-written questions instead (a line each: the question, a tab, and
** the files that answer it, relative to DIR, tab-separated; "#" lines skipped) over every
** indexable file under DIR, or with --files N over the answers and other files drawn with the
** seed up to N. A question counts as found when any of its files is in the ten results.
**
** The files are ingested as the application ingests them (the engine's text extraction: HTML as
** readable text, the query's lines taken out of the markup first),
** with chunks of C bytes (default 800) overlapping by O (default 200), into an in-memory engine
** with the random encoder or the weights W. Each query runs in every mode with k = 10:
** semantic (mode 0, narrowed to ten files), semantic over every file (mode 5), keyword (3),
** text (1) and hybrid (4). R@10: share of queries with a chunk of their file among the ten
** results; MRR@10: mean of 1 / rank of the first such chunk (0 when none). Both are given for
** every query and for the vocabulary-mismatch slice: the queries none of whose content words
** occurs in their file as indexed (vocabulary.h), where words cannot help and meaning must.
**
** --sweep adds rows for other semantic shares of the hybrid fusion (0: keyword alone, 1: the
** semantic ranking alone), to tune the hybrid mode.
** --dump FILE writes every chunk's file ("C slot path"), then per query a line "Q slice query
** file..." and both rankings 200 deep, "K" for keyword and "S" for semantic, each entry
** "slot score" (a keyword entry "slot bm25 cosine"); fields are tab-separated. --corpus FILE writes
*the texts that would be indexed
** (queries taken out), each followed by a blank line as a training profile's corpus is, and
** stops: an encoder trained on it has seen the user's files but never the answers to the queries.
** --task FILE writes the task itself and stops, for train_bag_eval_bench: per file "F path", its
** text's length in bytes and the text, each on a line; then per query "Q slice query file...",
** slice 1 for the mismatch slice, fields tab-separated.
*/
#include "common.h"
#include "encoder/vec.h"
#include "index/hnsw.h"
#include "probe.h"
#include "search/search.h"
#include "text/files.h"
#include "vocabulary.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace
{

struct Item {
    std::string path;
    std::string text; /* the file's text with the query's lines removed */
    std::string query;
};

struct Tally {
    double hits = 0, rr = 0;
    void add(int rank)
    {
        if (rank > 0) {
            hits += 1;
            rr += 1.0 / rank;
        }
    }
};

std::string lower(std::string s)
{
    for (char &c : s) {
        if (c >= 'A' && c <= 'Z') {
            c = (char)(c + 32);
        }
    }
    return s;
}

std::vector<std::string> split_lines(const std::string &s)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while (at <= s.size()) {
        size_t nl = s.find('\n', at);
        if (nl == std::string::npos) {
            lines.push_back(s.substr(at));
            break;
        }
        lines.push_back(s.substr(at, nl - at));
        at = nl + 1;
    }
    return lines;
}

int count_words(const std::string &s)
{
    int n = 0;
    bool in = false;
    for (char c : s) {
        bool w = c != ' ' && c != '\t';
        n += (w && !in) ? 1 : 0;
        in = w;
    }
    return n;
}

/* Tags dropped, the common entities decoded, white space collapsed and trimmed. */
std::string strip_tags(const std::string &html)
{
    std::string out;
    bool tag = false;
    for (size_t i = 0; i < html.size(); i++) {
        char c = html[i];
        if (c == '<') {
            tag = true;
            continue;
        }
        if (c == '>') {
            tag = false;
            continue;
        }
        if (tag) {
            continue;
        }
        if (c == '&') {
            static const char *const names[][2] = {{"&amp;", "&"},
                                                   {"&lt;", "<"},
                                                   {"&gt;", ">"},
                                                   {"&quot;", "\""},
                                                   {"&#39;", "'"},
                                                   {"&nbsp;", " "}};
            bool done = false;
            for (const auto &e : names) {
                if (html.compare(i, strlen(e[0]), e[0]) == 0) {
                    out += e[1];
                    i += strlen(e[0]) - 1;
                    done = true;
                    break;
                }
            }
            if (done) {
                continue;
            }
        }
        if (c == '\xc2' && i + 1 < html.size() && html[i + 1] == '\xa0') {
            c = ' '; /* a no-break space */
            i++;
        }
        if (c == '\n' || c == '\t' || c == '\r') {
            c = ' ';
        }
        if (c == ' ' && (out.empty() || out.back() == ' ')) {
            continue;
        }
        out += c;
    }
    while (!out.empty() && out.back() == ' ') {
        out.pop_back();
    }
    return out;
}

/* "9.4.2. Name", "Chapter 9. Name", "Appendix A. Name", "Appendix C Name", "F.3. Name", "20.1 Name"
** and "A.3 Name" give "Name"; "X11 Name" stays. */
std::string drop_numbering(std::string s)
{
    for (const char *word : {"Chapter ", "Appendix ", "Part "}) {
        if (s.rfind(word, 0) == 0) {
            s = s.substr(strlen(word));
            if (s.size() > 2 && isupper((unsigned char)s[0]) && s[1] == ' ') {
                s = s.substr(2); /* "Appendix C Name" */
            }
        }
    }
    size_t i = 0;
    bool digit = false;
    while (i < s.size() && (isalnum((unsigned char)s[i]) || s[i] == '.') && s[i] != ' ') {
        digit = digit || isdigit((unsigned char)s[i]);
        i++;
    }
    /* A number ends with a dot ("9.4.") or is made of digits and dots ("20.1", "A.3"). */
    bool number = i > 0
                  && (s[i - 1] == '.'
                      || (digit && (isdigit((unsigned char)s[0]) || (i > 1 && s[1] == '.'))
                          && s.find_first_not_of("0123456789.", 1) >= i));
    if (i > 0 && i < s.size() && s[i] == ' ' && number) {
        s = s.substr(i + 1);
    }
    return s;
}

/* Removes every line that holds needle (ignoring ASCII case); returns how many went. */
int remove_lines_with(std::string *text, const std::string &needle)
{
    std::vector<std::string> lines = split_lines(*text);
    std::string ln = lower(needle), out;
    int removed = 0;
    for (size_t i = 0; i < lines.size(); i++) {
        if (lower(strip_tags(lines[i])).find(ln) != std::string::npos) {
            removed++;
            continue;
        }
        out += lines[i];
        if (i + 1 < lines.size()) {
            out += '\n';
        }
    }
    *text = out;
    return removed;
}

bool html_query(Item *it)
{
    const std::string &t = it->text;
    size_t h = std::string::npos;
    for (const char *open : {"<h1", "<h2", "<h3", "<h4"}) {
        size_t at = t.find(open);
        if (at != std::string::npos && (h == std::string::npos || at < h)) {
            h = at;
        }
    }
    if (h == std::string::npos) {
        return false;
    }
    size_t end = t.find("</h", h);
    if (end == std::string::npos) {
        return false;
    }
    std::string heading = strip_tags(t.substr(h, t.find('>', end) + 1 - h));
    /* A reference page: "<p>NAME — summary</p>" right after the heading. */
    size_t after = t.find('>', end) + 1;
    std::string next = strip_tags(t.substr(after, 400));
    std::string dash = heading + " \xe2\x80\x94 ";
    std::string query;
    if (next.rfind(dash, 0) == 0) {
        size_t p_end = t.find("</p>", after);
        std::string para =
            strip_tags(t.substr(after, p_end == std::string::npos ? 0 : p_end - after));
        query = para.size() > dash.size() ? para.substr(dash.size()) : "";
    } else {
        query = drop_numbering(heading);
    }
    if (count_words(query) < 2) {
        return false;
    }
    it->query = query;
    return remove_lines_with(&it->text, query) > 0;
}

bool markdown_query(Item *it)
{
    std::vector<std::string> lines = split_lines(it->text);
    for (const std::string &l : lines) {
        if (l.rfind("# ", 0) == 0 && count_words(l.substr(2)) >= 2) {
            it->query = l.substr(2);
            return remove_lines_with(&it->text, it->query) > 0;
        }
    }
    return false;
}

/* The lines joined again, those from first to last left out. */
std::string join_without(const std::vector<std::string> &lines, size_t first, size_t last)
{
    std::string out;
    for (size_t i = 0; i < lines.size(); i++) {
        if (i >= first && i <= last) {
            continue;
        }
        out += lines[i];
        if (i + 1 < lines.size()) {
            out += '\n';
        }
    }
    return out;
}

bool go_query(Item *it, std::mt19937 &rng)
{
    std::vector<std::string> lines = split_lines(it->text);
    struct Candidate {
        size_t first, last; /* comment lines holding the sentence */
        std::string sentence;
    };
    std::vector<Candidate> found;
    for (size_t i = 1; i < lines.size(); i++) {
        if (lines[i].rfind("func ", 0) != 0 || lines[i - 1].rfind("// ", 0) != 0) {
            continue;
        }
        size_t top = i - 1;
        while (top > 0 && lines[top - 1].rfind("//", 0) == 0) {
            top--;
        }
        /* The function's name: the word before "(" after "func " or "func (recv) ". */
        std::string decl = lines[i].substr(5);
        if (!decl.empty() && decl[0] == '(') {
            size_t close = decl.find(") ");
            decl = close == std::string::npos ? "" : decl.substr(close + 2);
        }
        std::string name = decl.substr(0, decl.find_first_of("([ "));
        std::string sentence;
        size_t last = top;
        for (size_t j = top; j < i; j++) {
            std::string body = lines[j].size() > 3 ? lines[j].substr(3) : "";
            sentence += (sentence.empty() ? "" : " ") + body;
            last = j;
            size_t stop = sentence.find(". ");
            if (stop != std::string::npos || (!sentence.empty() && sentence.back() == '.')) {
                sentence =
                    sentence.substr(0, stop == std::string::npos ? sentence.size() - 1 : stop);
                break;
            }
        }
        if (!name.empty() && sentence.rfind(name + " ", 0) == 0) {
            sentence = sentence.substr(name.size() + 1);
        }
        if (count_words(sentence) >= 4) {
            found.push_back({top, last, sentence});
        }
    }
    if (found.empty()) {
        return false;
    }
    const Candidate &c = found[rng() % found.size()];
    it->query = c.sentence;
    it->text = join_without(lines, c.first, c.last);
    return true;
}

std::string trim(const std::string &s)
{
    size_t a = s.find_first_not_of(" \t\r");
    size_t b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? "" : s.substr(a, b + 1 - a);
}

/* A line of a block comment without its indentation, opening "/" "**", leading "*" and closing
** "*" "/". */
std::string comment_body(const std::string &line)
{
    std::string b = trim(line);
    if (b.rfind("/**", 0) == 0) {
        b = b.substr(3);
    }
    size_t close = b.find("*/");
    if (close != std::string::npos) {
        b = b.substr(0, close);
    }
    b = trim(b);
    while (!b.empty() && b[0] == '*') {
        b = trim(b.substr(1));
    }
    return b;
}

/* Doc-comment markup read as text: "{@code x}" and "{@link Foo#bar}" give "x" and "Foo.bar",
** "{@link Foo label}" gives "label"; then tags are dropped and entities decoded. */
std::string doc_text(const std::string &s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); i++) {
        if (s.compare(i, 2, "{@") != 0) {
            out += s[i];
            continue;
        }
        size_t close = s.find('}', i);
        if (close == std::string::npos) {
            break;
        }
        std::string inner = s.substr(i + 2, close - i - 2);
        size_t sp = inner.find(' ');
        inner = sp == std::string::npos ? "" : trim(inner.substr(sp + 1));
        size_t label = inner.find(' ');
        if (label != std::string::npos && inner.find('(') > label) {
            inner = trim(inner.substr(label + 1));
        }
        for (char &c : inner) {
            c = c == '#' ? '.' : c;
        }
        if (!inner.empty() && inner[0] == '.') {
            inner = inner.substr(1);
        }
        out += inner;
        i = close;
    }
    return strip_tags(out);
}

/* Javadoc, JSDoc and Doxygen: the first sentence of a block doc comment right above a declaration
** with a parameter list (annotations may stand between them), read as text, without the
** function's name when it opens the sentence; the comment lines that hold the sentence are
** removed. One function per file, drawn with the seed. */
bool block_comment_query(Item *it, std::mt19937 &rng)
{
    std::vector<std::string> lines = split_lines(it->text);
    struct Candidate {
        size_t first, last;
        std::string sentence;
    };
    std::vector<Candidate> found;
    for (size_t i = 0; i < lines.size(); i++) {
        if (trim(lines[i]).rfind("/**", 0) != 0) {
            continue;
        }
        size_t end = i;
        while (end < lines.size() && lines[end].find("*/") == std::string::npos) {
            end++;
        }
        if (end == lines.size()) {
            break;
        }
        size_t d = end + 1;
        while (d < lines.size() && trim(lines[d]).rfind('@', 0) == 0) {
            d++;
        }
        std::string decl = d < lines.size() ? trim(lines[d]) : "";
        size_t paren = decl.find('(');
        if (paren == std::string::npos || paren == 0 || decl.find('=') < paren || decl[0] == '*'
            || decl.rfind("//", 0) == 0) {
            i = end;
            continue;
        }
        size_t name_end = decl.find_last_not_of(' ', paren - 1);
        size_t name_start = name_end == std::string::npos ? 0 : name_end + 1;
        while (name_start > 0
               && (isalnum((unsigned char)decl[name_start - 1]) || decl[name_start - 1] == '_')) {
            name_start--;
        }
        std::string name = decl.substr(name_start, name_end + 1 - name_start);
        std::string raw, sentence;
        size_t first = std::string::npos, last = i;
        for (size_t j = i; j <= end; j++) {
            std::string body = comment_body(lines[j]);
            if (body.rfind('@', 0) == 0 || (body.empty() && !raw.empty())) {
                break; /* block tags and the end of the first paragraph end the sentence */
            }
            if (body.empty()) {
                continue;
            }
            first = first == std::string::npos ? j : first;
            last = j;
            raw += (raw.empty() ? "" : " ") + body;
            sentence = doc_text(raw);
            size_t stop = sentence.find(". ");
            if (stop != std::string::npos || (!sentence.empty() && sentence.back() == '.')) {
                sentence =
                    sentence.substr(0, stop == std::string::npos ? sentence.size() - 1 : stop);
                break;
            }
        }
        if (!name.empty() && sentence.rfind(name + " ", 0) == 0) {
            sentence = sentence.substr(name.size() + 1);
        }
        if (first != std::string::npos && count_words(sentence) >= 4) {
            found.push_back({first, last, sentence});
        }
        i = end;
    }
    if (found.empty()) {
        return false;
    }
    const Candidate &c = found[rng() % found.size()];
    it->query = c.sentence;
    it->text = join_without(lines, c.first, c.last);
    return true;
}

/* A query and the files that answer it. */
struct Query {
    std::string text;
    std::vector<std::string> answers;
    bool mismatch = false; /* shares no content word with any answer (vocabulary.h) */
};

bool answers(const Query &q, const char *path)
{
    return path && std::find(q.answers.begin(), q.answers.end(), path) != q.answers.end();
}

int rank_of(const TrnResult *r, int32_t n, const Query &q)
{
    for (int32_t i = 0; i < n; i++) {
        if (answers(q, r[i].file_path)) {
            return i + 1;
        }
    }
    return 0;
}

int rank_of_slots(const TrnEngine *e, const uint32_t *slots, int32_t n, const Query &q)
{
    for (int32_t i = 0; i < n && i < 10; i++) {
        if (answers(q, probe_chunk(e, slots[i]).file_path)) {
            return i + 1;
        }
    }
    return 0;
}

/* One question a line: the question, a tab, and the files that answer it relative to dir,
** separated by tabs. Blank lines and lines starting with "#" are skipped. */
bool read_questions(const std::string &path, const std::string &dir, std::vector<Query> *out)
{
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) {
        fprintf(stderr, "known_item_bench: cannot read %s\n", path.c_str());
        return false;
    }
    std::string text;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        text.append(buf, n);
    }
    fclose(f);
    int line_no = 0;
    for (const std::string &line : split_lines(text)) {
        line_no++;
        if (trim(line).empty() || line[0] == '#') {
            continue;
        }
        std::vector<std::string> fields;
        size_t at = 0;
        for (size_t tab; (tab = line.find('\t', at)) != std::string::npos; at = tab + 1) {
            fields.push_back(trim(line.substr(at, tab - at)));
        }
        fields.push_back(trim(line.substr(at)));
        Query q{fields[0], {}, false};
        for (size_t i = 1; i < fields.size(); i++) {
            if (!fields[i].empty()) {
                q.answers.push_back((std::filesystem::path(dir) / fields[i]).string());
            }
        }
        if (q.text.empty() || q.answers.empty()) {
            fprintf(
                stderr,
                "known_item_bench: %s:%d: want a question, a tab and the files that answer it\n",
                path.c_str(),
                line_no);
            return false;
        }
        out->push_back(std::move(q));
    }
    return true;
}

void usage()
{
    fprintf(stderr,
            "usage: known_item_bench DIR [--weights W] [--files N] [--seed S] [--chunk C] "
            "[--overlap O] [--sweep] [--dump FILE] [--corpus FILE] [--questions FILE] "
            "[--task FILE]\n");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        usage();
        return 2;
    }
    std::string dir = argv[1], weights;
    int files = -1, chunk = 800, overlap = 200; /* files: 300, or every file with questions */
    unsigned seed = 1;
    bool sweep = false;
    std::string dump_path, corpus_path, questions_path, task_path;
    for (int i = 2; i < argc; i++) {
        std::string a = argv[i];
        bool has = i + 1 < argc;
        if (a == "--weights" && has) {
            weights = argv[++i];
        } else if (a == "--files" && has) {
            files = atoi(argv[++i]);
        } else if (a == "--seed" && has) {
            seed = (unsigned)atoi(argv[++i]);
        } else if (a == "--chunk" && has) {
            chunk = atoi(argv[++i]);
        } else if (a == "--overlap" && has) {
            overlap = atoi(argv[++i]);
        } else if (a == "--dump" && has) {
            dump_path = argv[++i];
        } else if (a == "--corpus" && has) {
            corpus_path = argv[++i];
        } else if (a == "--task" && has) {
            task_path = argv[++i];
        } else if (a == "--questions" && has) {
            questions_path = argv[++i];
        } else if (a == "--sweep") {
            sweep = true;
        } else {
            usage();
            return 2;
        }
    }
    std::vector<std::string> paths;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
         !ec && it != std::filesystem::recursive_directory_iterator();
         it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (!name.empty() && name[0] == '.') {
            if (it->is_directory()) {
                it.disable_recursion_pending();
            }
            continue;
        }
        if (it->is_regular_file()) {
            paths.push_back(it->path().string());
        }
    }
    if (paths.empty()) {
        fprintf(stderr, "known_item_bench: no files under %s\n", dir.c_str());
        return 1;
    }
    std::sort(paths.begin(), paths.end());

    std::vector<Item> items; /* what is indexed: path and text */
    std::vector<Query> queries;
    if (!questions_path.empty()) {
        /* Every indexable file, as the application reads it; the questions say which answer. */
        if (!read_questions(questions_path, dir, &queries)) {
            return 1;
        }
        std::vector<std::string> wanted;
        for (const Query &q : queries) {
            for (const std::string &a : q.answers) {
                if (!std::binary_search(paths.begin(), paths.end(), a)) {
                    fprintf(stderr,
                            "known_item_bench: %s answers \"%s\" but is not there\n",
                            a.c_str(),
                            q.text.c_str());
                    return 1;
                }
                wanted.push_back(a);
            }
        }
        /* With --files N: the answers and, drawn with the seed, other files up to N. */
        std::sort(wanted.begin(), wanted.end());
        wanted.erase(std::unique(wanted.begin(), wanted.end()), wanted.end());
        std::mt19937 rng(seed);
        std::shuffle(paths.begin(), paths.end(), rng);
        std::stable_partition(paths.begin(), paths.end(), [&wanted](const std::string &p) {
            return std::binary_search(wanted.begin(), wanted.end(), p);
        });
        for (const std::string &p : paths) {
            TrnFileType type = trn_detect_file_type(p.c_str());
            if (files >= 0 && (int)items.size() >= std::max(files, (int)wanted.size())) {
                break;
            }
            if (trn_is_indexable(type) && type != TRN_FILE_TYPE_PDF) {
                items.push_back({p, bench::extracted_text(p), ""});
            }
        }
    } else {
        std::mt19937 rng(seed);
        std::shuffle(paths.begin(), paths.end(), rng);
        for (const std::string &p : paths) {
            if ((int)items.size() >= (files < 0 ? 300 : files)) {
                break;
            }
            TrnFileType type = trn_detect_file_type(p.c_str());
            if (!trn_is_indexable(type) || type == TRN_FILE_TYPE_PDF) {
                continue;
            }
            /* An HTML page's query comes from its markup, then read as the engine reads it. */
            Item it{p,
                    type == TRN_FILE_TYPE_HTML ? bench::read_bytes(p) : bench::extracted_text(p),
                    ""};
            bool go = p.size() > 3 && p.compare(p.size() - 3, 3, ".go") == 0;
            bool ok = type == TRN_FILE_TYPE_HTML       ? html_query(&it)
                      : type == TRN_FILE_TYPE_MARKDOWN ? markdown_query(&it)
                      : type != TRN_FILE_TYPE_SOURCE   ? false
                      : go                             ? go_query(&it, rng)
                                                       : block_comment_query(&it, rng);
            if (ok && type == TRN_FILE_TYPE_HTML) {
                size_t n = 0;
                char *text = html_to_text(it.text.data(), it.text.size(), &n);
                it.text.assign(text, n);
                free(text);
            }
            if (ok && it.text.size() >= 11) {
                queries.push_back({it.query, {it.path}, false});
                items.push_back(std::move(it));
            }
        }
    }
    if (queries.empty()) {
        fprintf(stderr, "known_item_bench: no file under %s gives a query\n", dir.c_str());
        return 1;
    }
    if (!corpus_path.empty()) {
        FILE *out = fopen(corpus_path.c_str(), "wb");
        bool ok = out != nullptr;
        for (size_t i = 0; ok && i < items.size(); i++) {
            ok = fwrite(items[i].text.data(), 1, items[i].text.size(), out) == items[i].text.size()
                 && fwrite("\n\n", 1, 2, out) == 2;
        }
        if (out && fclose(out) != 0) {
            ok = false;
        }
        if (!ok) {
            fprintf(stderr, "known_item_bench: cannot write %s\n", corpus_path.c_str());
            return 1;
        }
        printf("wrote %zu files' text to %s\n", items.size(), corpus_path.c_str());
        return 0;
    }
    size_t n_mismatch = 0;
    for (Query &q : queries) {
        std::vector<const std::string *> texts;
        for (const Item &it : items) {
            if (answers(q, it.path.c_str())) {
                texts.push_back(&it.text);
            }
        }
        q.mismatch = vocabulary_mismatch(q.text, stem_set(texts));
        n_mismatch += q.mismatch ? 1 : 0;
    }
    if (!task_path.empty()) {
        FILE *out = fopen(task_path.c_str(), "wb");
        bool ok = out != nullptr;
        for (size_t i = 0; ok && i < items.size(); i++) {
            ok = fprintf(out, "F %s\n%zu\n", items[i].path.c_str(), items[i].text.size()) > 0
                 && fwrite(items[i].text.data(), 1, items[i].text.size(), out)
                        == items[i].text.size();
        }
        for (size_t i = 0; ok && i < queries.size(); i++) {
            ok = fprintf(out, "Q %d\t%s", queries[i].mismatch ? 1 : 0, queries[i].text.c_str()) > 0;
            for (const std::string &a : queries[i].answers) {
                ok = ok && fprintf(out, "\t%s", a.c_str()) > 0;
            }
            ok = ok && fputc('\n', out) != EOF;
        }
        if (out && fclose(out) != 0) {
            ok = false;
        }
        if (!ok) {
            fprintf(stderr, "known_item_bench: cannot write %s\n", task_path.c_str());
            return 1;
        }
        printf("wrote %zu files and %zu queries to %s\n",
               items.size(),
               queries.size(),
               task_path.c_str());
        return 0;
    }

    TrnConfig cfg = {nullptr, weights.empty() ? nullptr : weights.c_str(), 0, 0, 0, 0};
    TrnEngine *e = trn_open(&cfg);
    if (!weights.empty() && !probe_weights_loaded(e)) {
        fprintf(stderr, "known_item_bench: cannot load weights %s\n", weights.c_str());
        trn_close(e);
        return 1;
    }
    auto t0 = std::chrono::steady_clock::now();
    size_t bytes = 0;
    for (size_t i = 0; i < items.size(); i++) {
        trn_ingest_text(e, items[i].path.c_str(), items[i].text.c_str(), chunk, overlap);
        bytes += items[i].text.size();
        if ((i + 1) % 50 == 0 || i + 1 == items.size()) {
            double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            fprintf(stderr,
                    "\rindexing: %zu/%zu files, %zu chunks, %.0f s, about %.0f s left   ",
                    i + 1,
                    items.size(),
                    (size_t)trn_stats(e).chunk_count,
                    s,
                    s / (double)(i + 1) * (double)(items.size() - i - 1));
        }
    }
    fprintf(stderr, "\n");
    trn_build_doc_index(e);

    struct Mode {
        const char *name;
        int32_t mode;
    };
    const Mode modes[] = {{"semantic (mode 0, ten files)", TRN_SEARCH_SEMANTIC},
                          {"semantic, every file (mode 5)", TRN_SEARCH_SEMANTIC_ALL},
                          {"keyword (mode 3)", TRN_SEARCH_KEYWORD},
                          {"text (mode 1)", TRN_SEARCH_TEXT},
                          {"hybrid (mode 4)", TRN_SEARCH_HYBRID}};
    constexpr int n_modes = sizeof modes / sizeof modes[0];
    Tally tally[n_modes], slice[n_modes];
    double seconds[n_modes] = {0};

    /* Fusions tried by --sweep: the semantic share of the combination of scores. */
    const float variants[] = {0.0f, 0.2f, 0.3f, 0.4f, 0.5f, 0.6f, 0.7f, 1.0f};
    constexpr int n_variants = sizeof variants / sizeof variants[0];
    Tally swept[n_variants], swept_slice[n_variants];

    FILE *dump = dump_path.empty() ? nullptr : fopen(dump_path.c_str(), "w");
    if (dump) {
        const uint32_t slots = trn_stats(e).chunk_count;
        for (uint64_t c = 0; c < slots; c++) {
            fprintf(dump, "C\t%llu\t%s\n", (unsigned long long)c, probe_chunk(e, c).file_path);
        }
    }
    TrnResult results[10];
    for (const Query &q : queries) {
        for (int m = 0; m < n_modes; m++) {
            auto s0 = std::chrono::steady_clock::now();
            int32_t n = trn_search(e, q.text.c_str(), modes[m].mode, 10, results);
            seconds[m] +=
                std::chrono::duration<double>(std::chrono::steady_clock::now() - s0).count();
            int rank = rank_of(results, n, q);
            tally[m].add(rank);
            if (q.mismatch) {
                slice[m].add(rank);
            }
        }
        if (!sweep && !dump) {
            continue;
        }
        float v[TRN_ENCODER_DIM];
        trn_encoder_embed_text(probe_encoder(e), q.text.c_str(), v);
        vec_normalize(v, TRN_ENCODER_DIM);
        std::vector<uint32_t> sem(200), kw(200), fused(10);
        std::vector<float> s1(200), s2(200), s3(10);
        if (dump) {
            int32_t ns = hnsw_query_width(e, v, 200, 200, sem.data(), s1.data());
            int32_t nk = lex_search(e, q.text.c_str(), 200, kw.data(), s2.data());
            fprintf(dump, "Q\t%d\t%s", q.mismatch ? 1 : 0, q.text.c_str());
            for (const std::string &a : q.answers) {
                fprintf(dump, "\t%s", a.c_str());
            }
            fprintf(dump, "\nK");
            for (int32_t j = 0; j < nk; j++) {
                const float *x = probe_chunk(e, kw[j]).vector;
                fprintf(dump, "\t%u %.5f %.5f", kw[j], s2[j], vec_dot(x, v, TRN_ENCODER_DIM));
            }
            fprintf(dump, "\nS");
            for (int32_t j = 0; j < ns; j++) {
                fprintf(dump, "\t%u %.5f", sem[j], s1[j]);
            }
            fprintf(dump, "\n");
        }
        if (!sweep) {
            continue;
        }
        /* The two rankings as deep as a hybrid search takes them. */
        const int32_t width =
            std::max(HYBRID_GRAPH_MIN, std::min(probe_ef_search(e), HYBRID_CANDIDATES));
        int32_t ns = hnsw_query_width(e, v, width, width, sem.data(), s1.data());
        int32_t nk = lex_search(e, q.text.c_str(), HYBRID_CANDIDATES, kw.data(), s2.data());
        std::vector<float> cosine(nk);
        for (int32_t j = 0; j < nk; j++) {
            cosine[j] = vec_dot(probe_chunk(e, kw[j]).vector, v, TRN_ENCODER_DIM);
        }
        for (int w = 0; w < n_variants; w++) {
            int32_t nf = fuse_scores(FusionList{kw.data(), s2.data(), cosine.data(), nk},
                                     FusionList{sem.data(), s1.data(), s1.data(), ns},
                                     variants[w],
                                     10,
                                     fused.data(),
                                     s3.data());
            int rank = rank_of_slots(e, fused.data(), nf, q);
            swept[w].add(rank);
            if (q.mismatch) {
                swept_slice[w].add(rank);
            }
        }
    }

    const double nq = (double)queries.size(), ns = (double)n_mismatch;
    const auto cells = [nq, ns](const Tally &all, const Tally &part) {
        static char buf[96];
        if (ns > 0) {
            snprintf(buf,
                     sizeof buf,
                     "%.3f | %.3f | %.3f | %.3f",
                     all.hits / nq,
                     all.rr / nq,
                     part.hits / ns,
                     part.rr / ns);
        } else {
            snprintf(buf, sizeof buf, "%.3f | %.3f | - | -", all.hits / nq, all.rr / nq);
        }
        return buf;
    };
    printf("\n%s over %s: %zu files (%.1f MB, %zu chunks of %d bytes), %zu queries, %zu of them "
           "sharing no content word with their file (the mismatch slice), encoder %s\n\n",
           questions_path.empty() ? "Known-item search" : questions_path.c_str(),
           dir.c_str(),
           items.size(),
           (double)bytes / 1e6,
           (size_t)trn_stats(e).chunk_count,
           chunk,
           queries.size(),
           n_mismatch,
           weights.empty() ? "random (seed 42)" : weights.c_str());
    printf("| mode | R@10 | MRR@10 | mismatch R@10 | mismatch MRR@10 | ms/query |\n"
           "|---|---:|---:|---:|---:|---:|\n");
    for (int m = 0; m < n_modes; m++) {
        printf("| %s | %s | %.2f |\n",
               modes[m].name,
               cells(tally[m], slice[m]),
               1000.0 * seconds[m] / nq);
    }
    if (sweep) {
        printf("\n| fusion of scores | R@10 | MRR@10 | mismatch R@10 | mismatch MRR@10 |\n"
               "|---|---:|---:|---:|---:|\n");
        for (int w = 0; w < n_variants; w++) {
            printf("| semantic share %.1f | %s |\n", variants[w], cells(swept[w], swept_slice[w]));
        }
    }
    printf("\nExample queries:\n");
    for (size_t i = 0; i < queries.size() && i < 5; i++) {
        printf("  \"%s\" -> %s\n", queries[i].text.c_str(), queries[i].answers[0].c_str());
    }
    if (dump) {
        fclose(dump);
    }
    trn_close(e);
    return 0;
}
