/*
** snippets.cpp -- how one hit is shown, by the rules trn_search states in tarnwick.h: where in
** its chunk the match is (the focus), the line of that match, the snippet around it and the
** query's words marked in it.
**
**   text, regex        the focus is the match
**   keyword, hybrid    the first query word, not a stop word, of the window of DENSE_WINDOW
**                      bytes where the query's words are densest (by idf, lex_densest)
**   semantic           the first query word of the sentence that holds the most distinct query
**                      words (a cheap stand-in for the sentence nearest the query's vector);
**                      the chunk's first word when it holds none (also for a hybrid hit that
**                      holds stop words only)
**
** The snippet starts at the first line start among the SNIPPET_REACH bytes before the focus,
** else at the first word start there, so the matched line shows with what leads up to it, and
** ends within TRN_SNIPPET_MAX bytes at a word end. An HTML file's line is then moved from its
** text's line to its source's, reading the file again; a PDF's line is also given as a page and
** a line on it; DOCX, ODT and EPUB results name the headings above them (locate_rows). Stop
** words ("the", "in", "how") are never marked on their own, since they match everywhere; a query
** of stop words only marks them.
*/
#include "internal.h"

#include "index/words.h"
#include "text/files.h"

#include <algorithm>
#include <cstring>

namespace
{

constexpr int32_t SNIPPET_REACH = 75; /* bytes before a match a snippet may start */
/* A keyword or hybrid snippet starts at most SNIPPET_REACH bytes before the densest window of the
** query's words, so a window of this size still ends inside the 300-byte snippet. */
constexpr size_t DENSE_WINDOW = TRN_SNIPPET_MAX - SNIPPET_REACH;
constexpr float DENSE_REPEAT = 0.25f;    /* weight of a repeated query word in a snippet window */
constexpr size_t SNIPPET_END_SLACK = 60; /* bytes a snippet's end moves back to end a word */
constexpr size_t QUERY_WORDS_MAX = 16;
constexpr size_t HITS_MAX = 1024;
constexpr size_t HTML_PROBE = 32; /* bytes from a match that find it again in an HTML text */

/* English words too common to mark alone, sorted for bsearch. */
const char *const STOP_WORDS[] = {
    "a",    "about", "an",    "and",  "are",  "as",   "at",   "be",   "but",   "by",
    "can",  "do",    "does",  "for",  "from", "had",  "has",  "have", "how",   "i",
    "if",   "in",    "into",  "is",   "it",   "its",  "me",   "my",   "no",    "not",
    "of",   "on",    "or",    "our",  "so",   "than", "that", "the",  "their", "them",
    "then", "there", "these", "they", "this", "to",   "was",  "we",   "were",  "what",
    "when", "where", "which", "who",  "why",  "will", "with", "you",  "your"};

bool is_stop_word(const char *s, size_t n)
{
    size_t lo = 0, hi = sizeof STOP_WORDS / sizeof STOP_WORDS[0];
    while (lo < hi) {
        size_t mid = (lo + hi) / 2;
        const char *w = STOP_WORDS[mid];
        int c = strncmp(w, s, n);
        if (c == 0 && w[n] != '\0') {
            c = 1; /* w is longer: it sorts after s */
        }
        if (c == 0) {
            return true;
        }
        if (c < 0) {
            lo = mid + 1;
        } else {
            hi = mid;
        }
    }
    return false;
}

/* The query's distinct terms as the word index reads them (stems), and which of them count as
** hits. */
struct QueryWords {
    char term[QUERY_WORDS_MAX][TERM_MAX];
    size_t len[QUERY_WORDS_MAX];
    bool marked[QUERY_WORDS_MAX]; /* not a stop word, or the query has nothing else */
    size_t n;
};

void read_query_words(const char *query, QueryWords *q)
{
    q->n = 0;
    tokenize(query, strlen(query), [q](const char *word, size_t n_word, size_t) {
        char s[TERM_MAX];
        memcpy(s, word, n_word);
        const size_t n = stem_term(s, n_word);
        for (size_t j = 0; j < q->n; j++) {
            if (q->len[j] == n && memcmp(q->term[j], s, n) == 0) {
                return;
            }
        }
        if (q->n < QUERY_WORDS_MAX) {
            memcpy(q->term[q->n], s, n);
            q->len[q->n] = n;
            q->marked[q->n] = !is_stop_word(word, n_word);
            q->n++;
        }
    });
    bool any = false;
    for (size_t j = 0; j < q->n; j++) {
        any = any || q->marked[j];
    }
    for (size_t j = 0; j < q->n && !any; j++) {
        q->marked[j] = true;
    }
}

/* Where a term of n folded bytes found at off ends in the text: underscores are dropped from
** folded words, and folding keeps a character's length in the scripts it covers. */
size_t term_end(const char *text, size_t len, size_t off, size_t n)
{
    size_t end = off, used = 0;
    while (end < len && used < n) {
        if (text[end] != '_') {
            used++;
        }
        end++;
    }
    while (end < len && ((unsigned char)text[end] & 0xC0) == 0x80) {
        end++;
    }
    return end;
}

/* The marked query words in text: begin, end and which word, in order of offset. */
struct WordHits {
    uint32_t begin[HITS_MAX];
    uint32_t end[HITS_MAX];
    uint8_t word[HITS_MAX];
    size_t n;
};

void find_word_hits(const QueryWords &q, const char *text, size_t len, WordHits *h)
{
    h->n = 0;
    tokenize(text, len, [&q, text, len, h](const char *word, size_t n_word, size_t off) {
        if (h->n == HITS_MAX) {
            return;
        }
        char s[TERM_MAX];
        memcpy(s, word, n_word);
        const size_t n = stem_term(s, n_word);
        for (size_t j = 0; j < q.n; j++) {
            if (q.marked[j] && q.len[j] == n && memcmp(q.term[j], s, n) == 0) {
                h->begin[h->n] = (uint32_t)off;
                h->end[h->n] = (uint32_t)term_end(text, len, off, n_word); /* the whole word */
                h->word[h->n] = (uint8_t)j;
                h->n++;
                return;
            }
        }
    });
}

/* The first hit of the sentence holding the most distinct query words (the earliest such
** sentence); -1 without hits. Sentences end at a line feed or at ". ", "! " and "? ". */
int64_t best_sentence_hit(const char *text, const WordHits &h)
{
    int64_t best = -1;
    int best_count = 0;
    size_t i = 0;
    while (i < h.n) {
        /* Hits i..j-1 share a sentence: no sentence end between their starts. */
        size_t j = i + 1;
        uint32_t words = 1u << h.word[i];
        while (j < h.n) {
            bool ends = false;
            for (uint32_t p = h.end[j - 1]; p < h.begin[j] && !ends; p++) {
                char c = text[p];
                ends = c == '\n'
                       || ((c == '.' || c == '!' || c == '?') && p + 1 < h.begin[j]
                           && (text[p + 1] == ' ' || text[p + 1] == '\n'));
            }
            if (ends) {
                break;
            }
            words |= 1u << h.word[j];
            j++;
        }
        int count = __builtin_popcount(words);
        if (count > best_count) {
            best_count = count;
            best = h.begin[i];
        }
        i = j;
    }
    return best;
}

/* The offset in text of the first word of the chunk (its first byte that is not white space). */
size_t first_word(const char *text, size_t len)
{
    size_t p = 0;
    while (p < len && text[p] != '\0' && strchr(" \n\t\r\f\v", text[p]) != nullptr) {
        p++;
    }
    return p < len ? p : 0;
}

/* Where the snippet ends: start + TRN_SNIPPET_MAX at the latest, moved back before the last
** space or line feed among the SNIPPET_END_SLACK bytes before that, else to a character start. */
size_t snippet_end(const char *text, size_t len, size_t start)
{
    if (len - start <= (size_t)TRN_SNIPPET_MAX) {
        return len;
    }
    size_t limit = start + TRN_SNIPPET_MAX;
    for (size_t j = limit; j > limit - SNIPPET_END_SLACK && j > start; j--) {
        if (text[j] == ' ' || text[j] == '\n' || text[j] == '\t') {
            size_t end = j;
            while (end > start && (text[end - 1] == ' ' || text[end - 1] == '\n')) {
                end--;
            }
            if (end > start) {
                return end;
            }
        }
    }
    while (limit > start && ((unsigned char)text[limit] & 0xC0) == 0x80) {
        limit--;
    }
    return limit;
}

/* Adds the mark [b, e) of the text to r, in snippet offsets; overlapping or touching marks join. */
void add_mark(uint16_t *marks, int32_t *count, size_t start, size_t end, size_t b, size_t e)
{
    if (e <= start || b >= end) {
        return;
    }
    uint16_t mb = (uint16_t)((b > start ? b : start) - start);
    uint16_t me = (uint16_t)((e < end ? e : end) - start);
    if (*count > 0 && mb <= marks[2 * *count - 1]) {
        if (me > marks[2 * *count - 1]) {
            marks[2 * *count - 1] = me;
        }
        return;
    }
    if (*count < TRN_RESULT_MARKS_MAX) {
        marks[2 * *count] = mb;
        marks[2 * *count + 1] = me;
        (*count)++;
    }
}

} // namespace

/* The first line start among the SNIPPET_REACH bytes before p, else the first word start there
** (after a space), else p; 0 for p <= SNIPPET_REACH. */
size_t snippet_start(const char *text, int64_t p)
{
    if (p < SNIPPET_REACH + 1) {
        return 0;
    }
    for (size_t j = (size_t)p - SNIPPET_REACH; j < (size_t)p; j++) {
        if (text[j] == '\n') {
            return j + 1;
        }
    }
    for (size_t j = (size_t)p - SNIPPET_REACH; j < (size_t)p; j++) {
        if (text[j] == ' ') {
            return j + 1;
        }
    }
    return (size_t)p;
}

int64_t lex_densest(TrnEngine *e, const char *query, const char *text, size_t window)
{
    lex_sync(e);
    TrnLexical *x = e->lexical;
    uint32_t ids[QUERY_TERMS_MAX];
    float idf[QUERY_TERMS_MAX];
    uint32_t nt = lex_query_terms(x, query, ids, idf, QUERY_TERMS_MAX);
    if (nt == 0) {
        return -1;
    }
    /* The query words in the text, in order: offset and which query term. */
    uint32_t hit_off[HITS_MAX];
    uint8_t hit_term[HITS_MAX];
    size_t hits = 0;
    uint32_t *offs = hit_off;
    uint8_t *terms = hit_term;
    tokenize_stems(
        text, strlen(text), [x, &ids, nt, offs, terms, &hits](const char *s, size_t n, size_t off) {
            if (hits == HITS_MAX) {
                return;
            }
            int64_t id = lex_find_term(x, s, n, hash_term(s, n));
            for (uint32_t q = 0; q < nt && id >= 0; q++) {
                if (ids[q] == (uint32_t)id) {
                    offs[hits] = (uint32_t)off;
                    terms[hits] = (uint8_t)q;
                    hits++;
                    return;
                }
            }
        });
    if (hits == 0) {
        return -1;
    }
    /* Slide a window over the hits: each distinct term counts its idf, each repeat a quarter. */
    uint32_t seen[QUERY_TERMS_MAX] = {0};
    float score = 0.0f, best = -1.0f;
    size_t best_at = 0, tail = 0;
    for (size_t head = 0; head < hits; head++) {
        uint8_t q = hit_term[head];
        score += seen[q]++ == 0 ? idf[q] : DENSE_REPEAT * idf[q];
        while (hit_off[head] - hit_off[tail] >= window) {
            uint8_t r = hit_term[tail++];
            score -= --seen[r] == 0 ? idf[r] : DENSE_REPEAT * idf[r];
        }
        if (score > best + 1e-6f) {
            best = score;
            best_at = tail;
        }
    }
    return (int64_t)hit_off[best_at];
}

int64_t fill_row(TrnEngine *e, TrnResult *r, int32_t i, uint32_t slot, float score, int64_t match,
                 int64_t match_len, int32_t mode, const char *query)
{
    const TrnChunk *c = &e->chunks[slot];
    const char *text = c->text ? c->text : "";
    const size_t len = strlen(text);
    QueryWords words;
    read_query_words(query, &words);
    WordHits *hits = static_cast<WordHits *>(xmalloc(sizeof(WordHits)));
    find_word_hits(words, text, len, hits);

    /* The focus: where the match is. */
    int64_t focus = -1;
    if (mode == TRN_SEARCH_TEXT || mode == TRN_SEARCH_REGEX) {
        focus = match;
    } else if (mode == TRN_SEARCH_KEYWORD || mode == TRN_SEARCH_HYBRID) {
        int64_t dense = lex_densest(e, query, text, DENSE_WINDOW);
        for (size_t h = 0; dense >= 0 && h < hits->n && focus < 0; h++) {
            if (hits->begin[h] >= dense && hits->begin[h] < dense + (int64_t)DENSE_WINDOW) {
                focus = hits->begin[h];
            }
        }
        /* A keyword hit on stop words alone still names the line of its first word; a hybrid
        ** one falls back to the rule of meaning below. */
        if (focus < 0 && mode == TRN_SEARCH_KEYWORD) {
            focus = dense;
        }
    }
    if (focus < 0) {
        focus = best_sentence_hit(text, *hits);
    }
    if (focus < 0 || focus > (int64_t)len) {
        focus = (int64_t)first_word(text, len);
    }

    size_t start = snippet_start(text, focus);
    /* A PDF page's form feed line is no text to show: the snippet starts after it, and a page
    ** break inside it reads as a blank line. */
    const bool pdf = c->file_type == TRN_FILE_TYPE_PDF;
    while (pdf && start + 1 < (size_t)focus && text[start] == '\f' && text[start + 1] == '\n') {
        start += 2;
    }
    size_t end = snippet_end(text, len, start);
    char *buf = e->snippets[i];
    memcpy(buf, text + start, end - start);
    buf[end - start] = '\0';
    for (char *p = buf; pdf && (p = strchr(p, '\f')) != nullptr;) {
        *p = ' ';
    }

    uint16_t *marks = e->marks[i];
    int32_t mark_count = 0;
    if (mode == TRN_SEARCH_TEXT) {
        /* Every occurrence of the query in the snippet; the query as lower-cased bytes. */
        size_t qlen = strlen(query);
        unsigned char *nl = static_cast<unsigned char *>(xmalloc(qlen + 1));
        for (size_t j = 0; j < qlen; j++) {
            unsigned char b = (unsigned char)query[j];
            nl[j] = b >= 'A' && b <= 'Z' ? (unsigned char)(b + 32) : b;
        }
        size_t from = start;
        while (qlen > 0 && from < end) {
            int64_t at = find_ascii_nocase(text + from, end - from, nl, qlen);
            if (at < 0) {
                break;
            }
            add_mark(marks, &mark_count, start, end, from + (size_t)at, from + (size_t)at + qlen);
            from += (size_t)at + qlen;
        }
        free(nl);
    } else if (mode == TRN_SEARCH_REGEX) {
        add_mark(marks, &mark_count, start, end, (size_t)match, (size_t)(match + match_len));
    } else {
        for (size_t h = 0; h < hits->n; h++) {
            add_mark(marks, &mark_count, start, end, hits->begin[h], hits->end[h]);
        }
    }
    free(hits);

    int32_t line = c->line_number;
    for (int64_t j = 0; j < focus; j++) {
        line += text[j] == '\n' ? 1 : 0;
    }
    r->doc_id = c->doc_id;
    r->file_path = c->file_path;
    r->snippet = buf;
    r->score = score;
    r->chunk_index = c->chunk_index;
    r->line_number = line;
    r->file_type = c->file_type;
    r->more_in_file = 0;
    r->marks = marks;
    r->mark_count = mark_count;
    r->page = 0;
    r->page_line = 0;
    r->heading_path = nullptr;
    return focus;
}

namespace
{

void html_source_lines(TrnEngine *e, TrnResult *results, const uint32_t *slots,
                       const int64_t *focus, int32_t n)
{
    HtmlLineMap map;
    char *text = nullptr;
    size_t len = 0;
    const char *read = nullptr;
    for (int32_t i = 0; i < n; i++) {
        TrnResult *r = &results[i];
        if (r->file_type != TRN_FILE_TYPE_HTML || !r->file_path) {
            continue;
        }
        if (!read || strcmp(read, r->file_path) != 0) {
            free(text);
            text = html_text_with_lines(r->file_path, &len, &map);
            read = r->file_path;
        }
        if (!text || map.empty()) {
            continue;
        }
        /* The match's line of the text starts at line_start; the match is the first place from
        ** there that reads as the chunk does from its focus. */
        size_t line_start = 0;
        for (int32_t line = 1; line < r->line_number && line_start < len; line_start++) {
            line += text[line_start] == '\n' ? 1 : 0;
        }
        const char *chunk = e->chunks[slots[i]].text ? e->chunks[slots[i]].text : "";
        size_t chunk_len = strlen(chunk);
        size_t from = focus[i] >= 0 && (size_t)focus[i] < chunk_len ? (size_t)focus[i] : 0;
        size_t want = chunk_len - from < HTML_PROBE ? chunk_len - from : HTML_PROBE;
        size_t at = line_start;
        if (want > 0 && line_start < len) {
            const void *hit = memmem(text + line_start, len - line_start, chunk + from, want);
            at = hit ? (size_t)(static_cast<const char *>(hit) - text) : line_start;
        }
        int32_t line = html_source_line(map, at);
        if (line > 0) {
            r->line_number = line;
        }
    }
    free(text);
}

/* The page of a PDF result and its line there, from the form feed lines that begin each page of
** the text: every byte of the file is in one of its chunks, so those up to the result's hold every
** form feed before it. A line is known by its number, so overlapping chunks count one once. */
void pdf_page(const TrnEngine *e, TrnResult *r)
{
    std::vector<int32_t, XAllocator<int32_t>> feeds; /* lines that hold a form feed */
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (c->deleted || !c->text || !c->file_path || c->chunk_index > r->chunk_index
            || strcmp(c->file_path, r->file_path) != 0) {
            continue;
        }
        int32_t line = c->line_number;
        for (const char *p = c->text; *p && line <= r->line_number; p++) {
            if (*p == '\f') {
                feeds.push_back(line);
            }
            line += *p == '\n' ? 1 : 0;
        }
    }
    std::sort(feeds.begin(), feeds.end());
    feeds.erase(std::unique(feeds.begin(), feeds.end()), feeds.end());
    /* A PDF read before its pages were marked has no form feed before its first line. */
    if (feeds.empty() || feeds[0] != 1) {
        return;
    }
    r->page = (int32_t)feeds.size();
    /* A match cannot stand on a page's form feed line, its line 0; were it to, line 1 is shown. */
    r->page_line = std::max(1, r->line_number - feeds.back());
}

/* The headings above each DOCX, ODT and EPUB result's line, reading the file again. */
void heading_paths(TrnEngine *e, TrnResult *results, const int32_t *buffers, int32_t n)
{
    TextHeadings headings;
    char *text = nullptr;
    size_t len = 0;
    const char *read = nullptr;
    for (int32_t i = 0; i < n; i++) {
        TrnResult *r = &results[i];
        if ((r->file_type != TRN_FILE_TYPE_DOCX && r->file_type != TRN_FILE_TYPE_ODT
             && r->file_type != TRN_FILE_TYPE_EPUB)
            || !r->file_path) {
            continue;
        }
        if (!read || strcmp(read, r->file_path) != 0) {
            free(text);
            text = container_text_with_headings(
                r->file_path, (TrnFileType)r->file_type, &len, &headings);
            read = r->file_path;
        }
        if (!text || headings.empty()) {
            continue;
        }
        size_t line_start = 0;
        for (int32_t line = 1; line < r->line_number && line_start < len; line_start++) {
            line += text[line_start] == '\n' ? 1 : 0;
        }
        char *out = e->heading_paths[buffers ? buffers[i] : i];
        if (heading_path_at(text, len, headings, line_start, out, TRN_HEADING_PATH_MAX + 1) > 0) {
            r->heading_path = out;
        }
    }
    free(text);
}

} // namespace

void locate_rows(TrnEngine *e, TrnResult *results, const int32_t *buffers, const uint32_t *slots,
                 const int64_t *focus, int32_t n)
{
    for (int32_t i = 0; i < n; i++) {
        if (results[i].file_type == TRN_FILE_TYPE_PDF && results[i].file_path) {
            pdf_page(e, &results[i]);
        }
    }
    heading_paths(e, results, buffers, n);
    html_source_lines(e, results, slots, focus, n);
}

extern "C" int trn_is_stop_word(const char *word, size_t len)
{
    return word && is_stop_word(word, len) ? 1 : 0;
}
