/*
** lexical_speed_bench.cpp -- what the word index costs: keyword and hybrid queries at 100,000
** chunks, and opening a store with the index against without it, in one run.
**
**   lexical_speed_bench [CHUNKS] [REPEATS] [DIR]
**
** A store of CHUNKS chunks (default 100,000) is written to a temporary directory: 800-byte texts,
** cut every 600 bytes from the files under DIR (read again from the start while more are needed)
** or, without DIR, made of words drawn from a Zipf distribution over 50,000 words (rank r has
** weight 1/r, so the commonest words are in every chunk), some of them camel-case identifiers;
** random unit vectors, and a graph whose level-0 lists hold 16 random neighbours (embedding 100,000
** chunks would take hours; the store's size and the search's work per hop are what they would
** be). trn_close writes the store and the word index file beside it. Then, each REPEATS times
** (default 5), median reported:
**   open      trn_open of that store with the word index file and without it (moved aside: the
**             open of before the file existed)
**   first     the first keyword search after each of those opens, which reads the file (without
**             it, builds the word index)
**   build     the word index alone, built again from the loaded chunks (lex_free, lex_sync)
**   keyword   trn_search mode 3, k = 10, for queries of 1 to 6 words of mixed frequency
**   hybrid    trn_search mode 4, k = 10, which embeds the query itself; measured before its
**             parts below, so that they do not bring its vectors into the cache
**   embed     trn_encoder_embed_text of the same queries (the random encoder)
**   graph     the graph search a hybrid query makes, and the same 100 wide (random vectors: a
**             pessimistic case, since no region of the graph is closer than another)
**   bm25      the keyword ranking a hybrid query fuses (lex_search, 100 deep)
** Times are processor time of the process (run it with OPENBLAS_NUM_THREADS=1), so other work on
** the machine does not count. It prints the ratios asked of the index: open with the file against
** open without, the keyword time (aim under 5 ms) and hybrid minus embed (aim at most 10 ms).
*/
#include "common.h"
#include "encoder/vec.h"
#include "index/hnsw.h"
#include "index/word_index.h"
#include "probe.h"
#include "search/search.h"
#include "text/files.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <time.h>

namespace
{

constexpr int VOCABULARY = 50000;
constexpr int NEIGHBOURS = 16;

// Processor time of this process: on a shared machine the wall clock mostly measures the others.
double now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return (double)ts.tv_sec * 1e3 + (double)ts.tv_nsec / 1e6;
}

// Word r of the vocabulary: a pronounceable string, every seventh one a camel-case identifier.
std::string word(int r)
{
    static const char *const syl[] = {"ka",
                                      "to",
                                      "ri",
                                      "ne",
                                      "su",
                                      "mo",
                                      "la",
                                      "pe",
                                      "di",
                                      "go",
                                      "vu",
                                      "shi",
                                      "an",
                                      "er",
                                      "ol",
                                      "ix"};
    std::string w;
    int x = r + 1;
    bool camel = r % 7 == 3;
    int parts = 0;
    while (x > 0) {
        std::string s = syl[x % 16];
        if (camel && parts > 0 && parts % 2 == 0) {
            s[0] = (char)(s[0] - 32);
        }
        w += s;
        x /= 16;
        parts++;
    }
    return w;
}

} // namespace

int main(int argc, char **argv)
{
    const long chunks = argc > 1 ? atol(argv[1]) : 100000;
    const int repeats = argc > 2 ? atoi(argv[2]) : 5;
    std::vector<std::string> real; // 800-byte windows of the files under argv[3]
    if (argc > 3) {
        std::vector<std::string> files;
        std::error_code ec;
        for (auto it = std::filesystem::recursive_directory_iterator(argv[3], ec);
             !ec && it != std::filesystem::recursive_directory_iterator();
             it.increment(ec)) {
            if (it->is_regular_file()) {
                files.push_back(it->path().string());
            }
        }
        std::sort(files.begin(), files.end());
        for (const std::string &f : files) {
            ExtractedText text;
            if (extract_file_text(
                    f.c_str(), classify_file(f.c_str(), nullptr, 0, nullptr), 0, &text)
                != TRN_FILE_STATUS_INDEXABLE) {
                extracted_text_free(&text);
                continue;
            }
            const char *t = text.text;
            uint64_t n = text.length;
            for (uint64_t at = 0; at + 800 <= n && (long)real.size() < chunks; at += 600) {
                real.emplace_back(t + at, 800);
            }
            extracted_text_free(&text);
        }
        if (real.empty()) {
            fprintf(stderr, "lexical_speed_bench: no text under %s\n", argv[3]);
            return 1;
        }
    }
    if (chunks < 100 || repeats < 1) {
        fprintf(stderr, "usage: lexical_speed_bench [CHUNKS >= 100] [REPEATS >= 1]\n");
        return 2;
    }
    char tmpl[] = "/tmp/trn_lexbench_XXXXXX";
    if (!mkdtemp(tmpl)) {
        fprintf(stderr, "lexical_speed_bench: cannot create a temporary directory\n");
        return 1;
    }
    const std::string dir = tmpl;

    // Zipf sampling through the cumulative weights.
    std::vector<double> cdf(VOCABULARY);
    double sum = 0;
    for (int r = 0; r < VOCABULARY; r++) {
        sum += 1.0 / (r + 1);
        cdf[r] = sum;
    }
    std::vector<std::string> words(VOCABULARY);
    for (int r = 0; r < VOCABULARY; r++) {
        words[r] = word(r);
    }
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> unit(0.0, sum);
    std::normal_distribution<float> gauss(0.0f, 1.0f);

    fprintf(stderr, "writing a store of %ld chunks to %s\n", chunks, dir.c_str());
    {
        TrnConfig cfg = {dir.c_str(), nullptr, 0, 0, 0, 0};
        TrnEngine *e = trn_open(&cfg);
        probe_reserve(e, (uint64_t)chunks);
        std::uniform_int_distribution<uint32_t> pick(0, (uint32_t)chunks - 1);
        std::vector<float> v(TRN_ENCODER_DIM);
        uint32_t links[NEIGHBOURS];
        for (long i = 0; i < chunks; i++) {
            std::string text = real.empty() ? "" : real[(size_t)i % real.size()];
            while (text.size() < 800) {
                int r = (int)(std::lower_bound(cdf.begin(), cdf.end(), unit(rng)) - cdf.begin());
                text += words[std::min(r, VOCABULARY - 1)];
                text += (i + (long)text.size()) % 11 == 0 ? ".\n" : " ";
            }
            text.resize(800);
            char path[64], doc_id[80];
            snprintf(path, sizeof path, "docs/file%ld.txt", i / 20);
            snprintf(doc_id, sizeof doc_id, "%s:%ld", path, i % 20);
            for (float &x : v) {
                x = gauss(rng);
            }
            vec_normalize(v.data(), v.size());
            for (uint32_t &n : links) {
                n = pick(rng);
            }
            uint64_t slot =
                probe_append(e, doc_id, text.c_str(), path, (int32_t)(i % 20), v.data());
            probe_link_to(e, slot, links, NEIGHBOURS);
        }
        /* Appended chunks are unsaved: trn_close writes the store, the word index file with it. */
        trn_close(e);
    }
    const double store_mb = (double)std::filesystem::file_size(dir + "/tarnwick.bin") / 1e6;

    // Queries of one to six words: a common word, mid-frequency words and rare ones.
    const std::vector<std::string> queries = {
        words[40],
        words[3] + " " + words[900],
        words[0] + " " + words[120] + " " + words[7000],
        words[10] + " " + words[300] + " " + words[2000] + " " + words[30000],
        words[1] + " " + words[2] + " " + words[60] + " " + words[500] + " " + words[4000],
        words[5] + " " + words[50] + " " + words[250] + " " + words[1000] + " " + words[10000] + " "
            + words[45000],
    };

    std::vector<double> open_ms, open_cold_ms, load_ms, first_ms, first_cold_ms, build_ms,
        keyword_ms, embed_ms, graph_ms, graph100_ms, bm25_ms, hybrid_ms;
    TrnResult results[10];
    long checksum = 0;
    int32_t width = 0;
    const std::string lex = dir + "/tarnwick.lex", aside = dir + "/lex.aside";
    double lex_mb = (double)std::filesystem::file_size(lex) / 1e6;
    for (int rep = 0; rep < repeats; rep++) {
        TrnConfig cfg = {dir.c_str(), nullptr, 0, 0, 0, 0};
        // Without the index file: the open of before, and a first search that builds the index.
        std::filesystem::rename(lex, aside);
        double t0 = now_ms();
        TrnEngine *e = trn_open(&cfg);
        open_cold_ms.push_back(now_ms() - t0);
        t0 = now_ms();
        checksum += trn_search(e, queries[0].c_str(), TRN_SEARCH_KEYWORD, 10, results);
        first_cold_ms.push_back(now_ms() - t0);
        probe_close_unwritten(e);
        std::filesystem::rename(aside, lex);

        t0 = now_ms();
        e = trn_open(&cfg);
        open_ms.push_back(now_ms() - t0);
        t0 = now_ms();
        checksum += trn_search(e, queries[0].c_str(), TRN_SEARCH_KEYWORD, 10, results);
        first_ms.push_back(now_ms() - t0);
        if (!probe_has_word_index(e)) {
            fprintf(stderr, "lexical_speed_bench: the index file was not read\n");
            return 1;
        }
        t0 = now_ms();
        lex_load(e);
        load_ms.push_back(now_ms() - t0);
        t0 = now_ms();
        lex_free(e);
        lex_sync(e);
        build_ms.push_back(now_ms() - t0);
        for (const std::string &q : queries) {
            t0 = now_ms();
            checksum += trn_search(e, q.c_str(), TRN_SEARCH_KEYWORD, 10, results);
            keyword_ms.push_back(now_ms() - t0);
            /* The hybrid query first, before its parts bring the same vectors into the cache. */
            t0 = now_ms();
            checksum += trn_search(e, q.c_str(), TRN_SEARCH_HYBRID, 10, results);
            hybrid_ms.push_back(now_ms() - t0);
            float v[TRN_ENCODER_DIM];
            t0 = now_ms();
            trn_encoder_embed_text(probe_encoder(e), q.c_str(), v);
            embed_ms.push_back(now_ms() - t0);
            vec_normalize(v, TRN_ENCODER_DIM);
            uint32_t idx[HYBRID_CANDIDATES]; /* the deepest ranking asked for below */
            float sim[HYBRID_CANDIDATES];
            /* Each graph search after an embedding, which pushes the vectors out of the cache. */
            t0 = now_ms();
            checksum += hnsw_query_width(e, v, 100, 100, idx, sim);
            graph100_ms.push_back(now_ms() - t0);
            trn_encoder_embed_text(probe_encoder(e), q.c_str(), v);
            vec_normalize(v, TRN_ENCODER_DIM);
            width = hybrid_graph_width(e);
            t0 = now_ms();
            checksum += hnsw_query_width(e, v, width, width, idx, sim);
            graph_ms.push_back(now_ms() - t0);
            t0 = now_ms();
            checksum += lex_search(e, q.c_str(), HYBRID_CANDIDATES, idx, sim);
            bm25_ms.push_back(now_ms() - t0);
        }
        /* Close without writing: the store stays as it was for the next open. */
        probe_close_unwritten(e);
    }
    std::filesystem::remove_all(dir);

    const double open = bench::median(open_ms), open_cold = bench::median(open_cold_ms);
    const double keyword = bench::median(keyword_ms), embed = bench::median(embed_ms),
                 hybrid = bench::median(hybrid_ms);
    const double graph = bench::median(graph_ms), bm25 = bench::median(bm25_ms);
    printf("\nWord index at %ld chunks (store %.0f MB, index file %.0f MB), median of %d runs, %zu "
           "queries each\n\n",
           chunks,
           store_mb,
           lex_mb,
           repeats,
           queries.size());
    printf("| measure | ms | reference | ratio or difference | aim |\n");
    printf("|---|---:|---|---:|---|\n");
    printf("| open, index file read | %.1f | open without the file: %.1f ms | %.2fx | at most "
           "1.3x |\n",
           open,
           open_cold,
           open / open_cold);
    printf("| first keyword query after open, index file read | %.1f | without the file: %.1f ms "
           "| | no stall |\n",
           bench::median(first_ms),
           bench::median(first_cold_ms));
    printf("| of which reading the index file (lex_load) | %.1f | | | |\n", bench::median(load_ms));
    printf("| building the word index from the texts | %.1f | | | |\n", bench::median(build_ms));
    printf("| keyword query, k = 10 | %.2f | | | under 5 ms |\n", keyword);
    printf(
        "| hybrid query, k = 10 | %.2f | query embedding: %.2f ms | +%.2f ms | at most +10 ms |\n",
        hybrid,
        embed,
        hybrid - embed);
    printf("| of which the graph search, %d wide | %.2f | the same 100 wide: %.2f ms | | |\n",
           width,
           graph,
           bench::median(graph100_ms));
    printf("| of which the keyword ranking, %d deep | %.2f | | | |\n", HYBRID_CANDIDATES, bm25);
    printf("| the rest: fusion, snippets | %.2f | | | |\n", hybrid - embed - graph - bm25);
    printf("\nkeyword query max %.2f ms; results checksum %ld\n",
           *std::max_element(keyword_ms.begin(), keyword_ms.end()),
           checksum);
    return 0;
}
