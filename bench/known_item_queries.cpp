/*
** known_item_queries.cpp -- the queries of known_item_queries.h.
*/
#include "known_item_queries.h"

#include <algorithm>
#include <cctype>
#include <cstring>

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

std::string trim(const std::string &s)
{
    size_t a = s.find_first_not_of(" \t\r");
    size_t b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? "" : s.substr(a, b + 1 - a);
}

namespace
{

std::string lower(std::string s)
{
    for (char &c : s) {
        if (c >= 'A' && c <= 'Z') {
            c = (char)(c + 32);
        }
    }
    return s;
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

bool html_query(KnownItem *it)
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

bool markdown_query(KnownItem *it)
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

bool go_query(KnownItem *it, std::mt19937 &rng)
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
bool block_comment_query(KnownItem *it, std::mt19937 &rng)
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

} // namespace

bool known_item_query(TrnFileType type, KnownItem *it, std::mt19937 &rng)
{
    const std::string &p = it->path;
    const bool go = p.size() > 3 && p.compare(p.size() - 3, 3, ".go") == 0;
    return type == TRN_FILE_TYPE_HTML       ? html_query(it)
           : type == TRN_FILE_TYPE_MARKDOWN ? markdown_query(it)
           : type != TRN_FILE_TYPE_SOURCE   ? false
           : go                             ? go_query(it, rng)
                                            : block_comment_query(it, rng);
}
