/*
** search.h -- what trn_search is made of: the scans and modes (query.cpp), the keyword ranking
** (bm25.cpp), how a hit is shown (snippets.cpp) and the hybrid mode's whole policy
** (fusion.cpp).
*/
#ifndef TRN_SEARCH_H
#define TRN_SEARCH_H

#include "tarnwick.h"

#include "alloc.h"

#include <cstddef>
#include <cstdint>
#include <vector>

constexpr int TRN_MAX_RESULTS = 64;    /* results per trn_search */
constexpr int TRN_SNIPPET_MAX = 300;   /* bytes of a snippet, without its NUL */
constexpr int32_t QUERY_DIM_MAX = 512; /* the widest vector a query is embedded into */
/* Entries of a ranking a search by file lays out: its rows and their counts of more passages
** come from this many chunks at most (text, regex, keyword; hybrid fuses at most 200). */
constexpr int32_t BY_FILE_DEPTH = 1024;
/* The widest graph search a semantic search by file makes (4 k, at least SEMANTIC_GRAPH_MIN and
** ef_search). */
constexpr int32_t BY_FILE_GRAPH_MAX = 256;
/* How wide a semantic search walks the graph at least. A query is a few words, far from every
** chunk the graph links, and a narrow walk stops short of the nearest chunks: 50 wide, the
** graph's answers found the right file for 0.07 fewer queries over Go's sources than an exact
** ranking; 200 wide, 0.02 fewer (bench/README.md). */
constexpr int32_t SEMANTIC_GRAPH_MIN = 200;

/* The chunks a mode found, best first, with their scores and, for text and regex, the offset and
** length of the match in the chunk's text (-1 and 0 when the mode has none). */
struct Ranking {
    std::vector<uint32_t, XAllocator<uint32_t>> slots;
    std::vector<float, XAllocator<float>> scores;
    std::vector<int64_t, XAllocator<int64_t>> matches;
    std::vector<int64_t, XAllocator<int64_t>> lengths;
    bool by_place = false; /* no scores: the place in the ranking is all (text, regex, lists) */

    int32_t n() const { return (int32_t)slots.size(); }
    void add(uint32_t slot, float score, int64_t match = -1, int64_t length = 0)
    {
        slots.push_back(slot);
        scores.push_back(score);
        matches.push_back(match);
        lengths.push_back(length);
    }
};

/* ---------------------------------------------------------------------------------------------
** Modes and scans (query.cpp)
*/
/* Offset of the first occurrence of the n-byte needle nl, already lower-cased, in the len-byte hay,
** ignoring ASCII case (what strcasestr finds in the C and UTF-8 locales); -1 when there is none.
** An empty needle is found at 0. */
int64_t find_ascii_nocase(const char *hay, size_t len, const unsigned char *nl, size_t n);
/* For each of the n rows of a semantic search by file (the chunks row_slots), how many other
** chunks of its file (among those allowed, NULL: all) are at least cutoff near the query vector q:
** what the file's "n more" opens, by exact nearness, into more. */
void count_near_passages(const TrnEngine *e, const float *q, const uint32_t *row_slots, int32_t n,
                         float cutoff, const uint8_t *allowed, int32_t *more);
/* Embeds and normalises the query into q (dim floats); false when dim does not fit. */
bool embed_query(TrnEngine *e, const char *query, float *q);
/* Fills result slot i (snippet and marks buffers i) from chunk slot as mode shows a hit: the
** line of the match, the snippet around it and the query's words marked (snippets.cpp). match
** and match_len locate a text or regex match in the chunk's text; -1 and 0 for other modes.
** Returns the offset in the chunk's text of the match it settled on. */
int64_t fill_row(TrnEngine *e, TrnResult *r, int32_t i, uint32_t slot, float score, int64_t match,
                 int64_t match_len, int32_t mode, const char *query);
/* Whether query holds something to rank by, not white space alone. */
bool query_ranks(const char *query);
/* After a ranking: true, with the handle refused as damaged and its status saying so, when a
** vector it read failed its checksum; the search then returns nothing. */
bool search_met_damage(TrnEngine *e);
/* One index's ranking in mode of query (what its narrowing leaves to search for), as deep as a
** search of kk rows needs (by file: deeper), among the chunks allowed (NULL: all), keyword counts
** from shared (NULL: e's own). With a mask, a query that ranks nothing lists the chunks allowed
** in index order. */
struct LexShared;
void rank_mode(TrnEngine *e, const char *query, int32_t mode, int32_t kk, bool by_file,
               const uint8_t *allowed, const LexShared *shared, Ranking *out);
/* The mode fill_row shows a row of rank_mode in: a listing has no match to show. */
int32_t show_mode(int32_t mode, const char *query);

/* ---------------------------------------------------------------------------------------------
** Narrowing (narrow.cpp): the words of a query that decide which chunks may answer it.
*/
struct TrnNarrowing {
    char *core;           /* owned: the query without its narrowing words, what is ranked */
    const char **phrases; /* lower-cased, each must occur as whole words (lists: owned) */
    int32_t phrase_count;
    const char **excluded; /* lower-cased, chunks holding one are left out */
    int32_t excluded_count;
    const char **extensions; /* without the dot; a file with one of them, or of types, passes */
    int32_t extension_count;
    uint32_t types;        /* bit t: TrnFileType t passes; 0 with no extensions: any */
    const char *folder;    /* below the indexed directory (or absolute); NULL: any */
    int64_t modified_from; /* modification time in [from, to), seconds; INT64_MIN/MAX: open */
    int64_t modified_to;
    uint8_t by_file;    /* something narrows by file */
    uint8_t active;     /* something narrows at all */
    char *text;         /* owned: the values the pointers above point into */
    const char **lists; /* owned: the arrays of phrases, excluded and extensions */
};
/* Splits query into words as trn_query_words describes; writes at most max, returns how many
** there are. */
int32_t split_query_words(const char *query, TrnQueryWord *out, int32_t max);
/* Reads query into nw (free it with narrow_free). False, with a one-line reason in message when
** given, for a modified: value that is no date; nothing is left to free then. */
bool narrow_parse(const char *query, TrnNarrowing *nw, char *message, size_t size);
void narrow_free(TrnNarrowing *nw);
/* e->count flags, 1 for each live chunk nw leaves in; NULL when nw narrows nothing. Free it. */
uint8_t *narrow_mask(const TrnEngine *e, const TrnNarrowing *nw);
/* The best min(k, chunks allowed) chunks by dot product with q among the allowed ones, best
** first (equal scores: lower slot first), into out and out_sim. Returns how many. */
int32_t narrow_nearest(const TrnEngine *e, const float *q, const uint8_t *allowed, int32_t k,
                       uint32_t *out, float *out_sim);

/* ---------------------------------------------------------------------------------------------
** Keyword ranking (bm25.cpp)
*/
constexpr float LEX_K1 = 1.2f; /* BM25 term-frequency saturation */
constexpr float LEX_B = 0.75f; /* BM25 length normalisation */
/* Syncs the word index, then writes the best min(k, matching) live chunks for query by BM25,
** best first (equal scores: lower slot first), to out_slots and their scores to out_scores.
** Returns how many. */
int32_t lex_search(TrnEngine *e, const char *query, int32_t k, uint32_t *out_slots,
                   float *out_scores);
/* The word counts of several indexes searched as one. */
struct LexShared {
    TrnEngine *const *engines;
    int32_t count;
    uint64_t live_docs; /* of them all */
    uint64_t total_len;
};
/* Syncs the word index of each engine and sums their counts. */
void lex_shared_init(LexShared *shared, TrnEngine *const *engines, int32_t count);
/* As lex_search, among the chunks whose flag in allowed is set (NULL: all), scored with the
** counts of shared (NULL: e's own), which must include e. */
int32_t lex_search_in(TrnEngine *e, const char *query, int32_t k, const uint8_t *allowed,
                      const LexShared *shared, uint32_t *out_slots, float *out_scores);
/* What a chunk holding each of the query's distinct terms once, at the average length, scores by
** BM25: the sum of their idf (with the counts of shared, NULL: e's own), a term no chunk holds
** counted at its highest idf. 0 when no chunk is live. */
float lex_query_mass(TrnEngine *e, const char *query, const LexShared *shared);
/* How much of the query n chunk texts hold together: the idf of each distinct query term that
** one of them at least holds, summed over the query's mass (lex_query_mass with shared), 0..1; 0
** without mass. The mass itself goes to *mass when mass is not NULL, so that a caller needing
** both reads the query's terms once. */
float lex_joint_coverage(TrnEngine *e, const char *query, const char *const *texts, int32_t n,
                         const LexShared *shared, float *mass);

/* ---------------------------------------------------------------------------------------------
** Snippets (snippets.cpp)
*/
/* Where each of the n results filled by fill_row stands in its file: an HTML result's line moves
** from the line of the file's text to the line of its source where the match stands, reading the
** file again (html_text_with_lines; a file that cannot be read keeps the text's line); a PDF
** result gets its page and line on it; a DOCX, ODT or EPUB result its heading path, read from
** the file again into e's buffer buffers[i] (i when buffers is NULL). slots and focus are each
** result's chunk and match offset in it, from fill_row. */
void locate_rows(TrnEngine *e, TrnResult *results, const int32_t *buffers, const uint32_t *slots,
                 const int64_t *focus, int32_t n);
/* Where the snippet of a match at offset p begins: 0 for p <= 75, else the first line start
** among the 75 bytes before p, else the first word start there, else p. */
size_t snippet_start(const char *text, int64_t p);
/* Offset in text of the first query word of the window of window bytes where the query's words
** are densest (each distinct word counts its idf, a repeat a quarter of it); -1 when none occurs.
*/
int64_t lex_densest(TrnEngine *e, const char *query, const char *text, size_t window);

/* ---------------------------------------------------------------------------------------------
** Hybrid search (fusion.cpp): the keyword ranking and the semantic one, each chunk ranked by a
** convex combination of its two scores.
*/
constexpr int32_t HYBRID_CANDIDATES = 100; /* keyword ranking a hybrid search fuses */
constexpr int32_t HYBRID_GRAPH_MIN = 50;   /* see hybrid_graph_width */
/* How wide a hybrid search searches the graph, and how deep the semantic ranking it fuses:
** ef_search within HYBRID_GRAPH_MIN..HYBRID_CANDIDATES. */
int32_t hybrid_graph_width(const TrnEngine *e);
/* One ranking for fuse_scores, best first: n chunk slots, each with the ranking's own score
** (BM25 for the keyword ranking, the cosine for the semantic one) and its cosine to the query
** (for the semantic ranking the same array as score). */
struct FusionList {
    const uint32_t *slot;
    const float *score;
    const float *cosine;
    int32_t n;
};
/* How many of the keyword ranking's first hits keyword_coverage reads together. */
constexpr int32_t HYBRID_JOINT_HITS = 10;
/* How well the keyword ranking explains the query: the mean of its best hit's BM25 score over the
** query's mass (lex_query_mass) and the share of that mass its first HYBRID_JOINT_HITS hits hold
** together (lex_joint_coverage); 0 without mass. */
float keyword_coverage(float best, float mass, float joint);
/* What meaning weighs against words in one hybrid search, 0..1, by the keyword ranking's
** coverage of the query (keyword_coverage). At coverage strong or above the share is share; at
** weak or below it is weak_share; linear between. */
struct FusionPolicy {
    float share;
    float weak_share;
    float weak;
    float strong;
};
extern const FusionPolicy HYBRID_POLICY; /* the hybrid mode's, in fusion.cpp */
/* The share the policy gives a query whose keyword ranking has this coverage. */
float hybrid_share(const FusionPolicy &policy, float coverage);
/* Ranks the slots of both lists by (1 - share) * BM25 / best BM25 + share * nearness, where
** nearness places the cosine between the semantic list's last (0) and first (1) score, clamped
** to 0..1, and a slot missing from the keyword list has BM25 0. With one list empty the other
** keeps its order. Writes the best min(k, distinct slots) to out and out_scores, best first;
** equal scores keep the keyword list's order, then the semantic one's. Returns how many. */
int32_t fuse_scores(const FusionList &words, const FusionList &meaning, float share, int32_t k,
                    uint32_t *out, float *out_scores);
/* trn_search's hybrid ranking: the fused chunks among those allowed (NULL: all), at most depth of
** them (and at most twice HYBRID_CANDIDATES); kk (at most TRN_MAX_RESULTS) widens the graph
** search. */
void rank_hybrid(TrnEngine *e, const char *query, int32_t kk, int32_t depth, const uint8_t *allowed,
                 Ranking *out);

#endif /* TRN_SEARCH_H */
