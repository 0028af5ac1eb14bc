/*
** train_eval_bench.cpp -- does training help search? A known-item retrieval task built from a
** directory of documents, scored for the random encoder, a trained encoder and BM25.
**
**   train_eval_bench [DIR] [STEPS] [BATCH] [THREADS] [LR] [FILES] [MERGES] [--weights FILE]...
**                    [--init FILE]
**
** DIR (default /usr/share/doc/postgresql-doc-15/html): every indexable file below it (names
** beginning with "." or "_" skipped, PDF skipped), HTML stripped by the engine. FILES files
** (default 120)
** of at least 3000 bytes of text are drawn with a fixed seed as the evaluation set; each is
** indexed with its first 10,000 bytes and gives two queries: 4 to 10 consecutive words of a
** 300-byte passage away from the file's head and tail. The relevant item of a query is its file.
**
** Training: the text of every file, with the evaluation passages cut out, is written to a
** corpus file and the built `trainer` program (beside this program) runs on it for STEPS steps
** (default 1000) of BATCH pairs (default 8) on THREADS threads (default 1) at peak rate LR
** (default 0.001). With MERGES above 0 the built `train_bpe` first learns that many merges on the
** same corpus and the trainer runs with `--bpe`, so the trained encoder reads tokens instead of
** bytes and its 254 positions cover about a whole chunk; the random encoder stays byte-level.
** With --init FILE the training starts from those weights (and keeps their tokenizer: MERGES is
** then ignored), and FILE is scored too. STEPS 0 trains nothing. Each --weights FILE adds a
** row for a weights file trained elsewhere (the built-in encoder: held-out text it never saw).
**
** Scoring, all in one run over the same chunks (800 bytes, overlap 200, cut by the engine):
** semantic search through the engine (in memory, trn_ingest_text, trn_build_doc_index,
** trn_search mode 0, k = 10) with the random encoder and with the trained weights; and BM25
** (k1 1.2, b 0.75) over the chunks' whole text and over the first 254 bytes of each, the part
** the byte-level encoder sees. recall@10: share of queries with a chunk of their file among the
** ten results; MRR@10: mean reciprocal rank of the first such chunk (0 when none). The
** "every chunk" rows rank all chunks by exact similarity to the query, without the search's
** narrowing to the ten files with the closest mean vectors.
*/
#include "common.h"
#include "probe.h"
#include "text/files.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace
{

constexpr size_t INDEX_BYTES = 10000;
constexpr size_t MIN_FILE_BYTES = 3000;
constexpr size_t PASSAGE_BYTES = 300;
constexpr int CHUNK_SIZE = 800;
constexpr int CHUNK_OVERLAP = 200;

struct Doc {
    std::string path;
    std::string text;
};

struct Query {
    std::string text;
    int doc; // index into the evaluation documents
};

struct Score {
    double recall = 0, mrr = 0;
};

std::vector<Doc> collect(const std::string &dir)
{
    namespace fs = std::filesystem;
    std::vector<std::string> paths;
    std::error_code ec;
    auto it =
        fs::recursive_directory_iterator(dir, fs::directory_options::follow_directory_symlink, ec);
    for (; !ec && it != fs::end(it); it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (name[0] == '.' || name[0] == '_') {
            if (it->is_directory(ec)) {
                it.disable_recursion_pending();
            }
            continue;
        }
        if (it->is_regular_file(ec)) {
            paths.push_back(it->path().string());
        }
    }
    std::sort(paths.begin(), paths.end());
    std::vector<Doc> docs;
    for (const std::string &p : paths) {
        TrnFileType t = trn_detect_file_type(p.c_str());
        if (!trn_is_indexable(t) || t == TRN_FILE_TYPE_PDF) {
            continue;
        }
        std::string text = bench::extracted_text(p);
        if (!text.empty()) {
            docs.push_back(Doc{p, text});
        }
    }
    return docs;
}

std::vector<std::string> split_words(const std::string &s)
{
    std::vector<std::string> words;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && isspace((unsigned char)s[i])) {
            i++;
        }
        size_t j = i;
        while (j < s.size() && !isspace((unsigned char)s[j])) {
            j++;
        }
        if (j > i) {
            words.push_back(s.substr(i, j - i));
        }
        i = j;
    }
    return words;
}

bool has_letters(const std::string &w)
{
    int letters = 0;
    for (char c : w) {
        letters += isalpha((unsigned char)c) ? 1 : 0;
    }
    return letters >= 2;
}

// Lower-case alphanumeric terms, for BM25.
std::vector<std::string> terms_of(const char *s, size_t n)
{
    std::vector<std::string> out;
    std::string cur;
    for (size_t i = 0; i <= n; i++) {
        unsigned char c = i < n ? (unsigned char)s[i] : ' ';
        if (isalnum(c)) {
            cur += (char)tolower(c);
        } else if (!cur.empty()) {
            out.push_back(cur);
            cur.clear();
        }
    }
    return out;
}

// BM25 over the given chunk texts; returns for each query the chunk ranks' file ids.
Score bm25(const std::vector<std::string> &chunks, const std::vector<int> &chunk_doc,
           const std::vector<Query> &queries)
{
    const double k1 = 1.2, b = 0.75;
    std::vector<std::unordered_map<std::string, int>> tf(chunks.size());
    std::unordered_map<std::string, int> df;
    std::vector<int> len(chunks.size());
    double avg = 0;
    for (size_t i = 0; i < chunks.size(); i++) {
        std::vector<std::string> t = terms_of(chunks[i].data(), chunks[i].size());
        len[i] = (int)t.size();
        avg += (double)t.size();
        for (const std::string &w : t) {
            if (tf[i][w]++ == 0) {
                df[w]++;
            }
        }
    }
    avg /= (double)std::max<size_t>(1, chunks.size());
    Score score;
    const double n = (double)chunks.size();
    for (const Query &q : queries) {
        std::vector<std::string> qt = terms_of(q.text.data(), q.text.size());
        std::vector<std::pair<double, int>> ranked;
        for (size_t i = 0; i < chunks.size(); i++) {
            double s = 0;
            for (const std::string &w : qt) {
                auto f = tf[i].find(w);
                if (f == tf[i].end()) {
                    continue;
                }
                double idf = std::log(1.0 + (n - df[w] + 0.5) / (df[w] + 0.5));
                double x = f->second;
                s += idf * x * (k1 + 1) / (x + k1 * (1 - b + b * len[i] / avg));
            }
            if (s > 0) {
                ranked.push_back({s, (int)i});
            }
        }
        size_t top = std::min<size_t>(10, ranked.size());
        std::partial_sort(
            ranked.begin(), ranked.begin() + top, ranked.end(), [](const auto &x, const auto &y) {
                return x.first > y.first;
            });
        for (size_t r = 0; r < top; r++) {
            if (chunk_doc[(size_t)ranked[r].second] == q.doc) {
                score.recall += 1;
                score.mrr += 1.0 / (double)(r + 1);
                break;
            }
        }
    }
    score.recall /= (double)queries.size();
    score.mrr /= (double)queries.size();
    return score;
}

struct Index {
    TrnEngine *engine = nullptr;
    double seconds = 0;
};

Index build_index(const std::vector<Doc> &eval, const char *weights)
{
    TrnConfig cfg{nullptr, weights, 0, 0, 0, 0};
    Index ix;
    auto t0 = std::chrono::steady_clock::now();
    ix.engine = trn_open(&cfg);
    for (const Doc &d : eval) {
        trn_ingest_text(ix.engine, d.path.c_str(), d.text.c_str(), CHUNK_SIZE, CHUNK_OVERLAP);
    }
    trn_build_doc_index(ix.engine);
    ix.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    return ix;
}

Score semantic(TrnEngine *e, const std::vector<Doc> &eval, const std::vector<Query> &queries)
{
    Score score;
    TrnResult results[10];
    for (const Query &q : queries) {
        int32_t n = trn_search(e, q.text.c_str(), TRN_SEARCH_SEMANTIC, 10, results);
        for (int32_t r = 0; r < n; r++) {
            if (results[r].file_path && eval[(size_t)q.doc].path == results[r].file_path) {
                score.recall += 1;
                score.mrr += 1.0 / (double)(r + 1);
                break;
            }
        }
    }
    score.recall /= (double)queries.size();
    score.mrr /= (double)queries.size();
    return score;
}

/* The same encoder without the file narrowing and the graph: every chunk scored exactly. Shows
** how much of a gap to BM25 is the encoder's and how much the search's. */
Score exhaustive(TrnEngine *e, const std::vector<Doc> &eval, const std::vector<Query> &queries)
{
    Score score;
    const TrnStats stats = trn_stats(e);
    std::vector<float> q((size_t)stats.dim);
    std::vector<std::pair<float, uint64_t>> ranked;
    for (const Query &query : queries) {
        trn_encoder_embed_text(probe_encoder(e), query.text.c_str(), q.data());
        ranked.clear();
        for (uint64_t i = 0; i < stats.chunk_count; i++) {
            const ProbeChunk c = probe_chunk(e, i);
            if (!c.deleted) {
                float dot = 0;
                for (int32_t j = 0; j < stats.dim; j++) {
                    dot += q[(size_t)j] * c.vector[j];
                }
                ranked.push_back({-dot, i});
            }
        }
        size_t top = std::min<size_t>(10, ranked.size());
        std::partial_sort(ranked.begin(), ranked.begin() + (long)top, ranked.end());
        for (size_t r = 0; r < top; r++) {
            const char *path = probe_chunk(e, ranked[r].second).file_path;
            if (path && eval[(size_t)query.doc].path == path) {
                score.recall += 1;
                score.mrr += 1.0 / (double)(r + 1);
                break;
            }
        }
    }
    score.recall /= (double)queries.size();
    score.mrr /= (double)queries.size();
    return score;
}

std::string self_dir()
{
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) {
        return ".";
    }
    buf[n] = '\0';
    std::string p(buf);
    return p.substr(0, p.rfind('/'));
}

int run_program(std::vector<std::string> args)
{
    std::vector<char *> argv;
    for (std::string &a : args) {
        argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
        return -1;
    }
    int ws = 0;
    waitpid(pid, &ws, 0);
    return WIFEXITED(ws) ? WEXITSTATUS(ws) : -1;
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> pos, extra_weights;
    std::string init;
    for (int i = 1; i < argc; i++) {
        const std::string a = argv[i];
        if ((a == "--weights" || a == "--init") && i + 1 < argc) {
            (a == "--init" ? init : extra_weights.emplace_back()) = argv[++i];
        } else {
            pos.push_back(a);
        }
    }
    auto arg = [&pos](size_t i, const char *fallback) {
        return i < pos.size() ? pos[i] : std::string(fallback);
    };
    const std::string dir = arg(0, "/usr/share/doc/postgresql-doc-15/html");
    const int steps = atoi(arg(1, "1000").c_str());
    const int batch = atoi(arg(2, "8").c_str());
    const int threads = atoi(arg(3, "1").c_str());
    const std::string lr = arg(4, "0.001");
    const int max_files = atoi(arg(5, "120").c_str());
    const int merges = init.empty() ? atoi(arg(6, "0").c_str()) : 0;

    std::vector<Doc> docs = collect(dir);
    size_t total_bytes = 0;
    std::vector<size_t> candidates;
    for (size_t i = 0; i < docs.size(); i++) {
        total_bytes += docs[i].text.size();
        if (docs[i].text.size() >= MIN_FILE_BYTES) {
            candidates.push_back(i);
        }
    }
    if (candidates.size() < 10) {
        fprintf(stderr,
                "train_eval_bench: too few documents of %zu bytes under %s\n",
                MIN_FILE_BYTES,
                dir.c_str());
        return 1;
    }
    std::mt19937_64 rng(7);
    std::shuffle(candidates.begin(), candidates.end(), rng);
    candidates.resize(std::min(candidates.size(), (size_t)max_files));
    std::sort(candidates.begin(), candidates.end());

    // evaluation documents, their queries, and the passages cut from the training text
    std::vector<Doc> eval;
    std::vector<Query> queries;
    std::vector<std::vector<std::pair<size_t, size_t>>> cut(docs.size());
    for (size_t c : candidates) {
        const std::string &text = docs[c].text;
        std::string indexed = text.substr(0, std::min(text.size(), INDEX_BYTES));
        size_t lo = std::min<size_t>(1000, indexed.size() / 4);
        size_t hi = indexed.size() > 1500 + PASSAGE_BYTES ? indexed.size() - 1500 : lo + 1;
        int doc = (int)eval.size();
        eval.push_back(Doc{docs[c].path, indexed});
        for (int q = 0; q < 2; q++) {
            size_t at = lo + (size_t)(rng() % std::max<size_t>(1, hi - lo));
            std::string passage = indexed.substr(at, PASSAGE_BYTES);
            std::vector<std::string> words = split_words(passage);
            if (words.size() < 8) {
                continue;
            }
            // drop the partial words at both ends of the passage
            words.erase(words.begin());
            words.pop_back();
            size_t n = 4 + rng() % 7;
            n = std::min(n, words.size());
            size_t first = rng() % (words.size() - n + 1);
            std::string query;
            int lettered = 0;
            for (size_t w = first; w < first + n; w++) {
                query += (query.empty() ? "" : " ") + words[w];
                lettered += has_letters(words[w]) ? 1 : 0;
            }
            if (lettered < 3) {
                continue;
            }
            queries.push_back(Query{query, doc});
            cut[c].push_back({at, PASSAGE_BYTES});
        }
    }

    // the training corpus: every file, evaluation passages removed
    const std::string tmpdir = "/tmp/trn_train_eval_" + std::to_string(getpid());
    std::filesystem::create_directories(tmpdir);
    const std::string corpus_path = tmpdir + "/corpus.txt";
    const std::string weights = tmpdir + "/trained.tten";
    size_t corpus_bytes = 0;
    {
        std::ofstream o(corpus_path, std::ios::binary);
        for (size_t i = 0; i < docs.size(); i++) {
            std::string text = docs[i].text;
            std::sort(cut[i].begin(), cut[i].end());
            for (auto it = cut[i].rbegin(); it != cut[i].rend(); ++it) {
                text.erase(it->first, std::min(it->second, text.size() - it->first));
            }
            o << text << "\n\n";
            corpus_bytes += text.size() + 2;
        }
    }

    printf("train_eval_bench: %s: %zu files, %.1f MB of text; evaluation: %zu files (first %zu "
           "bytes indexed), %zu queries\n",
           dir.c_str(),
           docs.size(),
           total_bytes / 1e6,
           eval.size(),
           INDEX_BYTES,
           queries.size());
    printf("training: %d steps, batch %d, threads %d, lr %s, %s on %.1f MB\n",
           steps,
           batch,
           threads,
           lr.c_str(),
           !init.empty() ? ("from " + init).c_str()
           : merges > 0  ? ("tokenizer of " + std::to_string(merges) + " merges").c_str()
                         : "bytes",
           corpus_bytes / 1e6);
    fflush(stdout);

    auto t0 = std::chrono::steady_clock::now();
    std::vector<std::string> trainer_args = {self_dir() + "/trainer",
                                             corpus_path,
                                             weights,
                                             std::to_string(steps),
                                             std::to_string(batch),
                                             lr,
                                             "8",
                                             "2"};
    if (!init.empty()) {
        trainer_args.push_back("--init");
        trainer_args.push_back(init);
    }
    if (merges > 0) {
        const std::string bpe_path = tmpdir + "/tokenizer.tbpe";
        int brc =
            run_program({self_dir() + "/train_bpe", corpus_path, bpe_path, std::to_string(merges)});
        if (brc != 0) {
            fprintf(stderr, "train_eval_bench: train_bpe failed with status %d\n", brc);
            std::filesystem::remove_all(tmpdir);
            return 1;
        }
        trainer_args.push_back("--bpe");
        trainer_args.push_back(bpe_path);
    }
    trainer_args.push_back("--threads");
    trainer_args.push_back(std::to_string(threads));
    int rc = steps > 0 ? run_program(trainer_args) : 0;
    double train_secs =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    if (rc != 0) {
        fprintf(stderr, "train_eval_bench: trainer failed with status %d\n", rc);
        std::filesystem::remove_all(tmpdir);
        return 1;
    }
    printf(
        "training took %.1f min (%.2f s/step)\n", train_secs / 60, train_secs / std::max(1, steps));
    fflush(stdout);

    Index random_ix = build_index(eval, nullptr);
    Score random_score = semantic(random_ix.engine, eval, queries);
    Score random_exact = exhaustive(random_ix.engine, eval, queries);

    // BM25 over the very chunks the engine cut
    std::vector<std::string> whole, head;
    std::vector<int> chunk_doc;
    std::unordered_map<std::string, int> doc_of;
    for (size_t d = 0; d < eval.size(); d++) {
        doc_of[eval[d].path] = (int)d;
    }
    const uint32_t slots = trn_stats(random_ix.engine).chunk_count;
    for (uint64_t i = 0; i < slots; i++) {
        const ProbeChunk ch = probe_chunk(random_ix.engine, i);
        whole.push_back(ch.text);
        head.push_back(std::string(ch.text).substr(0, 254));
        chunk_doc.push_back(doc_of[ch.file_path ? ch.file_path : ""]);
    }
    const size_t chunk_count = whole.size();
    Score bm25_whole = bm25(whole, chunk_doc, queries);
    Score bm25_head = bm25(head, chunk_doc, queries);
    trn_close(random_ix.engine);

    // every encoder to score after the random one: named files, the starting point, the result
    std::vector<std::pair<std::string, std::string>> encoders;
    for (const std::string &w : extra_weights) {
        encoders.push_back({w, w.substr(w.rfind('/') + 1)});
    }
    if (!init.empty()) {
        encoders.push_back({init, "start: " + init.substr(init.rfind('/') + 1)});
    }
    if (steps > 0) {
        encoders.push_back({weights, init.empty() ? "trained encoder" : "trained from the start"});
    }
    std::vector<std::pair<Score, Score>> scores;
    double index_seconds = 0;
    for (const auto &[path, name] : encoders) {
        Index ix = build_index(eval, path.c_str());
        scores.push_back(
            {semantic(ix.engine, eval, queries), exhaustive(ix.engine, eval, queries)});
        index_seconds = ix.seconds;
        trn_close(ix.engine);
    }

    printf("\n%zu chunks indexed (%.1f s per index)\n", chunk_count, index_seconds);
    printf("| system                         | recall@10 | MRR@10 |\n");
    printf("|--------------------------------|-----------|--------|\n");
    printf("| random encoder (seed 42)       | %9.3f | %6.3f |\n",
           random_score.recall,
           random_score.mrr);
    for (size_t i = 0; i < encoders.size(); i++) {
        printf("| %-30.30s | %9.3f | %6.3f |\n",
               encoders[i].second.c_str(),
               scores[i].first.recall,
               scores[i].first.mrr);
    }
    printf("| random encoder, every chunk    | %9.3f | %6.3f |\n",
           random_exact.recall,
           random_exact.mrr);
    for (size_t i = 0; i < encoders.size(); i++) {
        const std::string name = encoders[i].second + ", every chunk";
        printf("| %-30.30s | %9.3f | %6.3f |\n",
               name.c_str(),
               scores[i].second.recall,
               scores[i].second.mrr);
    }
    printf(
        "| BM25, whole chunks             | %9.3f | %6.3f |\n", bm25_whole.recall, bm25_whole.mrr);
    printf("| BM25, first 254 bytes of each  | %9.3f | %6.3f |\n", bm25_head.recall, bm25_head.mrr);

    std::filesystem::remove_all(tmpdir);
    return 0;
}
