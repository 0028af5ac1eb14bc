/*
** query.cpp -- trn_search, the engine's one query entry point, and its semantic, text and regular
** expression modes (what each mode returns is said at trn_search in tarnwick.h). The keyword
** ranking is bm25.cpp's, the hybrid one fusion.cpp's, and how a hit is shown snippets.cpp's.
** A semantic search without narrowing words asks the graph for min(4k, 64) hits and keeps
** those of the ten closest files. Narrowing words (narrow.cpp) become a mask over the chunks that
** every ranking here filters by.
**
** Regular expressions run on RE2 (Debian's libre2), whose automata take time linear in the text
** whatever the pattern: a pattern like (a*)*b that makes a backtracking matcher run for minutes
** over one chunk costs microseconds here. It is set up to read patterns as POSIX extended ones
** do, with '.' matching a line feed and '^' and '$' only at the ends of a chunk, plus \w, \s, \d
** and \b. Back-references need backtracking and are refused, as is nesting deeper than
** REGEX_NESTING_MAX; compile_regex is the only place a pattern is compiled, so trn_search and
** trn_check_regex always agree. RE2 allocates with the default allocator: an allocation failure
** inside it ends the process like oom_abort does, only without our message.
**
** The text scan is a case-insensitive search of our own, equal in results to strcasestr under
** ASCII case folding (the C and UTF-8 locales) and several times faster: it filters candidate
** positions on the needle's first and last bytes 16 or 32 at a time and verifies the rest.
*/
#include "internal.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include <re2/re2.h>

#if defined(__AVX2__) || defined(__SSE2__)
#include <immintrin.h>
#endif

static_assert(std::is_standard_layout_v<TrnResult> && std::is_trivially_copyable_v<TrnResult>,
              "TrnResult crosses the C interface");

namespace
{

constexpr int32_t NARROW_FILES = 10; /* files a semantic search is narrowed to */
/* Deeper nesting than any pattern a person writes; 20,000 levels must fail in microseconds. */
constexpr int32_t REGEX_NESTING_MAX = 100;

struct FreeDeleter {
    void operator()(void *p) const { free(p); }
};

inline unsigned char ascii_lower(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') ? (unsigned char)(c + ('a' - 'A')) : c;
}

/* 0x20 when c is a lower-case letter, so that (b | mask) == c finds both cases of it and
** nothing else; 0 for every other byte, which must then match exactly. */
inline unsigned char case_mask(unsigned char c)
{
    return (c >= 'a' && c <= 'z') ? 0x20 : 0;
}

/* h[0..n) equals the lower-cased nl[0..n) under ASCII case folding. */
inline bool equal_nocase(const unsigned char *h, const unsigned char *nl, size_t n)
{
    for (size_t j = 0; j < n; j++) {
        if (ascii_lower(h[j]) != nl[j]) {
            return false;
        }
    }
    return true;
}

} // namespace

/* Offset of the first occurrence of the n-byte needle nl (already lower-cased) in the len-byte
** hay, ignoring ASCII case; -1 when there is none. An empty needle is found at 0. */
int64_t find_ascii_nocase(const char *hay, size_t len, const unsigned char *nl, size_t n)
{
    if (n == 0) {
        return 0;
    }
    if (n > len) {
        return -1;
    }
    const unsigned char *h = (const unsigned char *)hay;
    const size_t last = len - n; /* the last possible start */
    const unsigned char f = nl[0];
    const unsigned char l = nl[n - 1];
    const size_t mid = n > 2 ? n - 2 : 0;
    size_t i = 0;
#if defined(__AVX2__)
    {
        const __m256i vf = _mm256_set1_epi8((char)f);
        const __m256i vl = _mm256_set1_epi8((char)l);
        const __m256i mf = _mm256_set1_epi8((char)case_mask(f));
        const __m256i ml = _mm256_set1_epi8((char)case_mask(l));
        /* starts i..i+31 are all possible, so both loads stay inside the hay */
        for (; i + 32 <= last + 1; i += 32) {
            __m256i a = _mm256_loadu_si256((const __m256i *)(h + i));
            __m256i b = _mm256_loadu_si256((const __m256i *)(h + i + n - 1));
            __m256i eq = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_or_si256(a, mf), vf),
                                          _mm256_cmpeq_epi8(_mm256_or_si256(b, ml), vl));
            uint32_t mask = (uint32_t)_mm256_movemask_epi8(eq);
            while (mask != 0) {
                size_t at = i + (size_t)__builtin_ctz(mask);
                if (equal_nocase(h + at + 1, nl + 1, mid)) {
                    return (int64_t)at;
                }
                mask &= mask - 1;
            }
        }
    }
#endif
#if defined(__SSE2__)
    {
        const __m128i vf = _mm_set1_epi8((char)f);
        const __m128i vl = _mm_set1_epi8((char)l);
        const __m128i mf = _mm_set1_epi8((char)case_mask(f));
        const __m128i ml = _mm_set1_epi8((char)case_mask(l));
        for (; i + 16 <= last + 1; i += 16) {
            __m128i a = _mm_loadu_si128((const __m128i *)(h + i));
            __m128i b = _mm_loadu_si128((const __m128i *)(h + i + n - 1));
            __m128i eq = _mm_and_si128(_mm_cmpeq_epi8(_mm_or_si128(a, mf), vf),
                                       _mm_cmpeq_epi8(_mm_or_si128(b, ml), vl));
            uint32_t mask = (uint32_t)_mm_movemask_epi8(eq);
            while (mask != 0) {
                size_t at = i + (size_t)__builtin_ctz(mask);
                if (equal_nocase(h + at + 1, nl + 1, mid)) {
                    return (int64_t)at;
                }
                mask &= mask - 1;
            }
        }
    }
#endif
    for (; i <= last; i++) {
        if (ascii_lower(h[i]) == f && ascii_lower(h[i + n - 1]) == l
            && equal_nocase(h + i + 1, nl + 1, mid)) {
            return (int64_t)i;
        }
    }
    return -1;
}

bool embed_query(TrnEngine *e, const char *query, float *q)
{
    if (e->dim < 1 || e->dim > QUERY_DIM_MAX) {
        return false;
    }
    trn_encoder_embed_text(engine_encoder(e), query, q);
    vec_normalize(q, (size_t)e->dim);
    return true;
}

namespace
{

/* The width of a semantic graph search: ef_search, at least SEMANTIC_GRAPH_MIN. */
int32_t semantic_width(const TrnEngine *e)
{
    return e->ef_search > SEMANTIC_GRAPH_MIN ? e->ef_search : SEMANTIC_GRAPH_MIN;
}

/* The graph width and depth of a semantic search by file: deep enough that k rows come from
** different files, as wide as semantic_width at least. */
int32_t by_file_graph_width(const TrnEngine *e, int32_t kk)
{
    int32_t w = 4 * kk < BY_FILE_GRAPH_MAX ? 4 * kk : BY_FILE_GRAPH_MAX;
    return w > semantic_width(e) ? w : semantic_width(e);
}

/* The nearest chunks among those allowed: a narrowed search answers with every chunk it may, so
** it scores them all (narrow.cpp says why). */
void rank_semantic_in(TrnEngine *e, const char *query, int32_t kk, bool by_file,
                      const uint8_t *allowed, Ranking *out)
{
    float q[QUERY_DIM_MAX];
    if (!embed_query(e, query, q)) {
        return;
    }
    int32_t want = by_file ? by_file_graph_width(e, kk) : kk;
    std::vector<uint32_t, XAllocator<uint32_t>> idx((size_t)want);
    std::vector<float, XAllocator<float>> sim((size_t)want);
    int32_t n = narrow_nearest(e, q, allowed, want, idx.data(), sim.data());
    for (int32_t i = 0; i < n; i++) {
        out->add(idx[(size_t)i], sim[(size_t)i]);
    }
}

void rank_semantic(TrnEngine *e, const char *query, int32_t kk, bool by_file, Ranking *out)
{
    float q[QUERY_DIM_MAX];
    if (!embed_query(e, query, q)) {
        return;
    }
    /* Without narrowing, or by file, the hits are the ranking; narrowed, a raw search asks the
    ** graph for min(4k, 64) hits and keeps those of the closest files. */
    int32_t want = by_file                    ? by_file_graph_width(e, kk)
                   : e->file_count < 2        ? kk
                   : 4 * kk < TRN_MAX_RESULTS ? 4 * kk
                                              : TRN_MAX_RESULTS;
    int32_t width = by_file ? want : semantic_width(e);
    std::vector<uint32_t, XAllocator<uint32_t>> idx((size_t)want);
    std::vector<float, XAllocator<float>> sim((size_t)want);
    int32_t n = hnsw_query_width(e, q, want, width, idx.data(), sim.data());
    if (e->file_count < 2) {
        for (int32_t h = 0; h < n; h++) {
            out->add(idx[(size_t)h], sim[(size_t)h]);
        }
        return;
    }

    /* Narrow to the files whose centroids are closest. */
    const int32_t files = e->file_count;
    const int32_t t = files < NARROW_FILES ? files : NARROW_FILES;
    std::unique_ptr<int32_t, FreeDeleter> order(
        (int32_t *)xmalloc(xmul((size_t)files, sizeof(int32_t))));
    std::unique_ptr<float, FreeDeleter> score((float *)xmalloc(xmul((size_t)files, sizeof(float))));
    int32_t *ord = order.get();
    float *sc = score.get();
    for (int32_t j = 0; j < files; j++) {
        const float *row = e->centroids + (size_t)j * (size_t)e->dim;
        float shifted = vec_dot(q, row, (size_t)e->dim) + (-1.0f);
        ord[j] = j;
        sc[j] = shifted + 1.0f;
    }
    for (int32_t i = 0; i < t; i++) {
        int32_t best = i;
        for (int32_t j = i + 1; j < files; j++) {
            if (sc[j] > sc[best]) {
                best = j;
            }
        }
        int32_t to = ord[i];
        float ts = sc[i];
        ord[i] = ord[best];
        sc[i] = sc[best];
        ord[best] = to;
        sc[best] = ts;
    }
    for (int32_t h = 0; h < n && (by_file || out->n() < kk); h++) {
        const char *path = e->chunks[idx[(size_t)h]].file_path;
        if (!path) {
            continue;
        }
        for (int32_t j = 0; j < t; j++) {
            if (strcmp(path, e->file_names[ord[j]]) == 0) {
                out->add(idx[(size_t)h], sim[(size_t)h]);
                break;
            }
        }
    }
}

/* Semantic search over every file: the graph is searched with a width of at least kk. */
void rank_semantic_all(TrnEngine *e, const char *query, int32_t kk, bool by_file, Ranking *out)
{
    float q[QUERY_DIM_MAX];
    if (!embed_query(e, query, q)) {
        return;
    }
    int32_t want = by_file ? by_file_graph_width(e, kk) : kk;
    int32_t width = want > semantic_width(e) ? want : semantic_width(e);
    std::vector<uint32_t, XAllocator<uint32_t>> idx((size_t)want);
    std::vector<float, XAllocator<float>> sim((size_t)want);
    int32_t n = hnsw_query_width(e, q, want, width, idx.data(), sim.data());
    for (int32_t i = 0; i < n; i++) {
        out->add(idx[(size_t)i], sim[(size_t)i]);
    }
}

void rank_keyword(TrnEngine *e, const char *query, int32_t depth, const uint8_t *allowed,
                  const LexShared *shared, Ranking *out)
{
    std::vector<uint32_t, XAllocator<uint32_t>> idx((size_t)depth);
    std::vector<float, XAllocator<float>> score((size_t)depth);
    int32_t n = lex_search_in(e, query, depth, allowed, shared, idx.data(), score.data());
    for (int32_t i = 0; i < n; i++) {
        out->add(idx[(size_t)i], score[(size_t)i]);
    }
}

/* Text and regex hits in chunk order; their scores are set by rank once the rows are known. */
void rank_text(TrnEngine *e, const char *query, int32_t depth, const uint8_t *allowed, Ranking *out)
{
    out->by_place = true;
    size_t qlen = strlen(query);
    if (qlen > 0 && strspn(query, " \t\r\n\f\v") == qlen) {
        return; /* white space alone is in nearly every chunk: it finds nothing */
    }
    std::unique_ptr<unsigned char, FreeDeleter> lowered((unsigned char *)xmalloc(qlen + 1));
    unsigned char *nl = lowered.get();
    for (size_t j = 0; j < qlen; j++) {
        nl[j] = ascii_lower((unsigned char)query[j]);
    }
    nl[qlen] = '\0';
    for (uint64_t i = 0; i < e->count && out->n() < depth; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (c->deleted || !c->text || (allowed && !allowed[i])) {
            continue;
        }
        int64_t p = find_ascii_nocase(c->text, strlen(c->text), nl, qlen);
        if (p >= 0) {
            out->add((uint32_t)i, 0.0f, p, (int64_t)qlen);
        }
    }
}

/* The RE2 object lives in engine memory; the deleter runs its destructor and frees it. */
struct RegexDeleter {
    void operator()(RE2 *re) const
    {
        re->~RE2();
        free(re);
    }
};
using RegexPtr = std::unique_ptr<RE2, RegexDeleter>;

void set_message(char *message, size_t size, const char *format, ...)
{
    if (!message || size == 0) {
        return;
    }
    va_list args;
    va_start(args, format);
    vsnprintf(message, size, format, args);
    va_end(args);
}

/* Finds what RE2 would accept but should not run: a back-reference (\1 to \9 outside a bracket
** expression) or groups nested deeper than REGEX_NESTING_MAX. Returns false with a reason. */
bool regex_prescan(const char *pattern, char *message, size_t size)
{
    int32_t depth = 0;
    bool in_bracket = false;
    for (size_t i = 0; pattern[i] != '\0'; i++) {
        char c = pattern[i];
        if (in_bracket) {
            /* "[:alpha:]" and the like hold a ']' that does not close the expression. */
            if (c == '['
                && (pattern[i + 1] == ':' || pattern[i + 1] == '.' || pattern[i + 1] == '=')) {
                const char *close = strchr(pattern + i + 2, pattern[i + 1]);
                if (close && close[1] == ']') {
                    i = (size_t)(close + 1 - pattern);
                }
            } else if (c == ']') {
                in_bracket = false;
            }
            continue;
        }
        if (c == '\\') {
            char next = pattern[i + 1];
            if (next >= '1' && next <= '9') {
                set_message(message, size, "back-references such as \\%c are not supported", next);
                return false;
            }
            if (next != '\0') {
                i++;
            }
        } else if (c == '[') {
            in_bracket = true;
            /* A ']' right after "[" or "[^" is a member, not the end. */
            if (pattern[i + 1] == '^') {
                i++;
            }
            if (pattern[i + 1] == ']') {
                i++;
            }
        } else if (c == '(') {
            depth++;
            if (depth > REGEX_NESTING_MAX) {
                set_message(message,
                            size,
                            "regular expression nested too deeply (more than %d groups)",
                            (int)REGEX_NESTING_MAX);
                return false;
            }
        } else if (c == ')' && depth > 0) {
            depth--;
        }
    }
    return true;
}

/* Compiles pattern for TRN_SEARCH_REGEX. Returns the expression, or NULL with a one-line reason
** in message (when message is not NULL and size > 0). */
RegexPtr compile_regex(const char *pattern, char *message, size_t size)
{
    if (!pattern) {
        set_message(message, size, "no regular expression given");
        return nullptr;
    }
    if (!regex_prescan(pattern, message, size)) {
        return nullptr;
    }
    RE2::Options options;
    options.set_posix_syntax(true);
    options.set_longest_match(true);
    options.set_case_sensitive(false);
    options.set_dot_nl(true);
    options.set_one_line(true);
    options.set_perl_classes(true);
    options.set_word_boundary(true);
    options.set_log_errors(false);
    void *memory = xmalloc(sizeof(RE2));
    RegexPtr re(new (memory) RE2(pattern, options));
    if (!re->ok()) {
        /* RE2 quotes the rest of the pattern after the problem: a short start of it is enough. */
        const std::string &why = re->error();
        int shown = (int)std::min<size_t>(why.size(), 80);
        while (shown < (int)why.size() && (why[(size_t)shown] & 0xC0) == 0x80) {
            shown--;
        }
        set_message(message,
                    size,
                    "invalid regular expression: %.*s%s",
                    shown,
                    why.c_str(),
                    shown < (int)why.size() ? "..." : "");
        return nullptr;
    }
    return re;
}

void rank_regex(TrnEngine *e, const char *query, int32_t depth, const uint8_t *allowed,
                Ranking *out)
{
    out->by_place = true;
    RegexPtr re = compile_regex(query, nullptr, 0);
    if (!re) {
        return;
    }
    for (uint64_t i = 0; i < e->count && out->n() < depth; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (c->deleted || !c->text || (allowed && !allowed[i])) {
            continue;
        }
        size_t len = strlen(c->text);
        re2::StringPiece match;
        if (!re->Match(re2::StringPiece(c->text, len), 0, len, RE2::UNANCHORED, &match, 1)) {
            continue;
        }
        out->add((uint32_t)i,
                 0.0f,
                 match.data() ? (int64_t)(match.data() - c->text) : 0,
                 (int64_t)match.size());
    }
}

/* A query of narrowing words alone ranks nothing: the chunks allowed, in index order. */
void rank_allowed(const TrnEngine *e, int32_t depth, const uint8_t *allowed, Ranking *out)
{
    out->by_place = true;
    for (uint64_t i = 0; i < e->count && out->n() < depth; i++) {
        if (allowed[i]) {
            out->add((uint32_t)i, 0.0f);
        }
    }
}

/* The rows of a search by file: the first entry of each file in ranking order, up to kk of them,
** and how many later entries each row's file has. A chunk without a path is a file of its own.
** Returns the rows. */
int32_t group_by_file(const TrnEngine *e, const Ranking &r, int32_t kk, int32_t *rows,
                      int32_t *more)
{
    int32_t n = 0;
    for (int32_t i = 0; i < r.n(); i++) {
        const char *path = e->chunks[r.slots[(size_t)i]].file_path;
        int32_t row = -1;
        for (int32_t j = 0; path && j < n; j++) {
            const char *other = e->chunks[r.slots[(size_t)rows[j]]].file_path;
            if (other && strcmp(path, other) == 0) {
                row = j;
                break;
            }
        }
        if (row >= 0) {
            more[row]++;
        } else if (n < kk) {
            rows[n] = i;
            more[n] = 0;
            n++;
        }
    }
    return n;
}

} // namespace

void count_near_passages(const TrnEngine *e, const float *q, const uint32_t *row_slots, int32_t n,
                         float cutoff, const uint8_t *allowed, int32_t *more)
{
    for (int32_t r = 0; r < n; r++) {
        more[r] = 0;
    }
    for (uint64_t i = 0; i < e->count; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (c->deleted || c->pending || !c->text || !c->file_path || (allowed && !allowed[i])) {
            continue;
        }
        for (int32_t r = 0; r < n; r++) {
            const char *row_path = e->chunks[row_slots[r]].file_path;
            if (i == row_slots[r] || !row_path || strcmp(row_path, c->file_path) != 0) {
                continue;
            }
            /* The slack covers the graph's own rounding of the cutoff chunk's nearness. */
            if (vec_dot(q, chunk_vector(e, i), (size_t)e->dim) >= cutoff - 1e-5f) {
                more[r]++;
            }
            break;
        }
    }
}

bool query_ranks(const char *query)
{
    return query[strspn(query, " \t\n\r\f\v")] != '\0';
}

bool search_met_damage(TrnEngine *e)
{
    if (!vectors_damaged(e)) {
        return false;
    }
    e->refused = TRN_STATUS_DAMAGED;
    fail_status(e, TRN_STATUS_DAMAGED, 0);
    return true;
}

void rank_mode(TrnEngine *e, const char *query, int32_t mode, int32_t kk, bool by_file,
               const uint8_t *allowed, const LexShared *shared, Ranking *out)
{
    const int32_t depth = by_file ? BY_FILE_DEPTH : kk;
    if (allowed && !query_ranks(query)) {
        rank_allowed(e, depth, allowed, out);
        return;
    }
    switch (mode) {
    case TRN_SEARCH_SEMANTIC:
        if (allowed) {
            rank_semantic_in(e, query, kk, by_file, allowed, out);
        } else {
            rank_semantic(e, query, kk, by_file, out);
        }
        break;
    case TRN_SEARCH_TEXT:
        rank_text(e, query, depth, allowed, out);
        break;
    case TRN_SEARCH_REGEX:
        rank_regex(e, query, depth, allowed, out);
        break;
    case TRN_SEARCH_KEYWORD:
        rank_keyword(e, query, depth, allowed, shared, out);
        break;
    case TRN_SEARCH_HYBRID:
        rank_hybrid(e, query, kk, depth, allowed, out);
        break;
    default:
        if (allowed) {
            rank_semantic_in(e, query, kk, by_file, allowed, out);
        } else {
            rank_semantic_all(e, query, kk, by_file, out);
        }
        break;
    }
}

int32_t show_mode(int32_t mode, const char *query)
{
    return query_ranks(query) ? mode : TRN_SEARCH_SEMANTIC;
}

namespace
{

/* trn_search_ex, or trn_search_file when path is not NULL: the chunks of that file alone. */
int32_t search_laid_out(TrnEngine *e, const char *query, int32_t mode, int32_t k, uint32_t flags,
                        const char *path, TrnResult *results)
{
    if (!e || !query || !results || k < 1 || mode < TRN_SEARCH_SEMANTIC
        || mode > TRN_SEARCH_SEMANTIC_ALL) {
        return 0;
    }
    TrnNarrowing nw;
    if (!narrow_parse(query, &nw, nullptr, 0)) {
        return 0;
    }
    index_refresh_for_read(e);
    if (e->count == 0) {
        narrow_free(&nw);
        return 0;
    }
    const int32_t kk = k < TRN_MAX_RESULTS ? k : TRN_MAX_RESULTS;
    const bool by_file = (flags & TRN_SEARCH_BY_FILE) != 0;
    if (path && !nw.active && !query_ranks(nw.core)) {
        narrow_free(&nw); /* nothing to search for: the file's chunks are no answer */
        return 0;
    }
    std::unique_ptr<uint8_t, FreeDeleter> allowed(narrow_mask(e, &nw));
    if (path) {
        if (!allowed) {
            allowed.reset((uint8_t *)xcalloc(e->count + 1, 1));
            for (uint64_t i = 0; i < e->count; i++) {
                allowed.get()[i] = !e->chunks[i].deleted && e->chunks[i].text ? 1 : 0;
            }
        }
        for (uint64_t i = 0; i < e->count; i++) {
            const char *of = e->chunks[i].file_path;
            allowed.get()[i] = allowed.get()[i] && of && strcmp(of, path) == 0 ? 1 : 0;
        }
    }
    Ranking ranking;
    rank_mode(e, nw.core, mode, kk, by_file, allowed.get(), nullptr, &ranking);
    if (search_met_damage(e)) {
        narrow_free(&nw);
        return 0;
    }
    int32_t rows[TRN_MAX_RESULTS];
    int32_t more[TRN_MAX_RESULTS];
    int32_t n = 0;
    if (by_file) {
        n = group_by_file(e, ranking, kk, rows, more);
        /* "n more" opens the file's nearest chunks by exact nearness (trn_search_file), so the
        ** count is taken the same way: every chunk of the file at least as near as the ranking's
        ** last, whether or not the graph came upon it. */
        float q[QUERY_DIM_MAX];
        if ((mode == TRN_SEARCH_SEMANTIC || mode == TRN_SEARCH_SEMANTIC_ALL) && n > 0
            && !ranking.by_place && embed_query(e, nw.core, q)) {
            uint32_t row_slots[TRN_MAX_RESULTS];
            for (int32_t i = 0; i < n; i++) {
                row_slots[i] = ranking.slots[(size_t)rows[i]];
            }
            count_near_passages(e, q, row_slots, n, ranking.scores.back(), allowed.get(), more);
        }
    } else {
        for (; n < kk && n < ranking.n(); n++) {
            rows[n] = n;
            more[n] = 0;
        }
    }
    const int32_t shown = show_mode(mode, nw.core);
    uint32_t slots[TRN_MAX_RESULTS];
    int64_t focus[TRN_MAX_RESULTS];
    for (int32_t i = 0; i < n; i++) {
        size_t at = (size_t)rows[i];
        float score = ranking.by_place ? 1.0f - (float)i / (float)kk : ranking.scores[at];
        slots[i] = ranking.slots[at];
        focus[i] = fill_row(e,
                            &results[i],
                            i,
                            ranking.slots[at],
                            score,
                            ranking.matches[at],
                            ranking.lengths[at],
                            shown,
                            nw.core);
        results[i].more_in_file = more[i];
    }
    locate_rows(e, results, nullptr, slots, focus, n);
    narrow_free(&nw);
    return n;
}

} // namespace

extern "C" {

int32_t trn_search_ex(TrnEngine *e, const char *query, int32_t mode, int32_t k, uint32_t flags,
                      TrnResult *results)
{
    return search_laid_out(e, query, mode, k, flags, nullptr, results);
}

int32_t trn_search_file(TrnEngine *e, const char *query, int32_t mode, const char *path, int32_t k,
                        TrnResult *results)
{
    if (!path) {
        return 0;
    }
    return search_laid_out(e, query, mode, k, 0, path, results);
}

int32_t trn_search(TrnEngine *e, const char *query, int32_t mode, int32_t k, TrnResult *results)
{
    return trn_search_ex(e, query, mode, k, 0, results);
}

int32_t trn_check_regex(const char *pattern, char *message, size_t size)
{
    if (message && size > 0) {
        message[0] = '\0';
    }
    return compile_regex(pattern, message, size) ? 1 : 0;
}

} // extern "C"
