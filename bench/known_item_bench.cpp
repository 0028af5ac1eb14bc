/*
** known_item_bench.cpp -- how often each search mode puts the right file first, on any directory.
**
**   known_item_bench DIR [--weights W] [--files N] [--seed S] [--chunk C] [--overlap O]
**                        [--sweep] [--dump FILE] [--corpus FILE] [--questions FILE] [--by-file]
**
** Each file's known-item query (known_item_queries.h) is asked against its text with the query's
** lines taken out. The indexable files under DIR (names beginning with "." skipped) are sorted,
** shuffled with the seed (default 1) and the first N (default 300) that give a query are indexed;
** each is the answer to its own query.
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
** --by-file lays the results out one row per file, as the application and tarnwick-cli show them,
** so the ten results are ten files; without it they are ten chunks, several of a file perhaps.
** The --sweep rows always rank chunks.
**
** --sweep adds rows for other fusions of the same two rankings: fixed semantic shares (0: keyword
** alone, 1: the semantic ranking alone) and shares that follow the keyword hits' coverage of the
** query (FusionPolicy in search.h), to tune the hybrid mode.
** --dump FILE writes every chunk's file ("C slot path"), then per query a line "Q slice query
** file...", the query's keyword mass ("M mass", lex_query_mass) and both rankings 200 deep, "K"
** for keyword and "S" for semantic, each entry "slot score" (a keyword entry "slot bm25 cosine");
** fields are tab-separated. --corpus FILE writes the texts that would be indexed (queries taken
** out), each followed by a blank line as a training profile's corpus is, and stops: an encoder
** trained on it has seen the user's files but never the answers to the queries.
** --task FILE writes the task itself and stops, for train_bag_eval_bench: per file "F path", its
** text's length in bytes and the text, each on a line; then per query "Q slice query file...",
** slice 1 for the mismatch slice, fields tab-separated.
*/
#include "common.h"
#include "encoder/vec.h"
#include "index/hnsw.h"
#include "known_item_queries.h"
#include "known_item_task.h"
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

using bench::Tally;

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
            "[--task FILE] [--by-file]\n");
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
    uint32_t layout = 0;
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
        } else if (a == "--by-file") {
            layout = TRN_SEARCH_BY_FILE;
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

    std::vector<KnownItem> items; /* what is indexed: path and text */
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
            KnownItem it{p,
                         type == TRN_FILE_TYPE_HTML ? bench::read_bytes(p)
                                                    : bench::extracted_text(p),
                         ""};
            bool ok = known_item_query(type, &it, rng);
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
        for (const KnownItem &it : items) {
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

    /* Fusions tried by --sweep: fixed semantic shares of the combination of scores, then shares
    ** that grow as the keyword hits cover less of the query (FusionPolicy): by the best hit's
    ** coverage alone (the engine's rule before), then by keyword_coverage, the engine's. */
    struct Variant {
        FusionPolicy policy;
        bool joint; /* coverage by keyword_coverage, else by the best hit alone */
    };
    const Variant variants[] = {{{0.0f, 0.0f, 0.0f, 0.0f}, false},
                                {{0.2f, 0.2f, 0.0f, 0.0f}, false},
                                {{0.3f, 0.3f, 0.0f, 0.0f}, false},
                                {{0.5f, 0.5f, 0.0f, 0.0f}, false},
                                {{1.0f, 1.0f, 0.0f, 0.0f}, false},
                                {{0.2f, 1.0f, 0.25f, 0.45f}, false},
                                {{0.2f, 1.0f, 0.45f, 0.45f}, false},
                                {HYBRID_POLICY, true},
                                {{0.2f, 1.0f, 0.45f, 0.6f}, true},
                                {{0.2f, 1.0f, 0.35f, 0.55f}, true}};
    constexpr int hybrid_row = 7;
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
            int32_t n = trn_search_ex(e, q.text.c_str(), modes[m].mode, 10, layout, results);
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
            fprintf(dump, "\nM\t%.5f\nK", lex_query_mass(e, q.text.c_str(), nullptr));
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
        const int32_t width = hybrid_graph_width(e);
        int32_t ns = hnsw_query_width(e, v, width, width, sem.data(), s1.data());
        int32_t nk = lex_search(e, q.text.c_str(), HYBRID_CANDIDATES, kw.data(), s2.data());
        std::vector<float> cosine(nk);
        for (int32_t j = 0; j < nk; j++) {
            cosine[j] = vec_dot(probe_chunk(e, kw[j]).vector, v, TRN_ENCODER_DIM);
        }
        float mass = 0.0f;
        const float best = nk > 0 ? s2[0] : 0.0f;
        const char *texts[HYBRID_JOINT_HITS];
        const int32_t nt = nk < HYBRID_JOINT_HITS ? nk : HYBRID_JOINT_HITS;
        for (int32_t j = 0; j < nt; j++) {
            texts[j] = probe_chunk(e, kw[j]).text;
        }
        const float joint = lex_joint_coverage(e, q.text.c_str(), texts, nt, nullptr, &mass);
        for (int w = 0; w < n_variants; w++) {
            const float coverage = variants[w].joint ? keyword_coverage(best, mass, joint)
                                   : mass > 0.0f     ? best / mass
                                                     : 0.0f;
            int32_t nf = fuse_scores(FusionList{kw.data(), s2.data(), cosine.data(), nk},
                                     FusionList{sem.data(), s1.data(), s1.data(), ns},
                                     hybrid_share(variants[w].policy, coverage),
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
           "sharing no content word with their file (the mismatch slice), encoder %s, results %s"
           "\n\n",
           questions_path.empty() ? "Known-item search" : questions_path.c_str(),
           dir.c_str(),
           items.size(),
           (double)bytes / 1e6,
           (size_t)trn_stats(e).chunk_count,
           chunk,
           queries.size(),
           n_mismatch,
           weights.empty() ? "random (seed 42)" : weights.c_str(),
           layout ? "by file" : "by chunk");
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
            const FusionPolicy &p = variants[w].policy;
            if (p.share == p.weak_share) {
                printf("| semantic share %.1f | %s |\n", p.share, cells(swept[w], swept_slice[w]));
            } else {
                printf("| share %.1f from %s %.2f up, %.1f at %.2f and below%s | %s |\n",
                       p.share,
                       variants[w].joint ? "coverage" : "best hit's coverage",
                       p.strong,
                       p.weak_share,
                       p.weak,
                       w == hybrid_row ? " (hybrid)" : "",
                       cells(swept[w], swept_slice[w]));
            }
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
