/*
** word_vectors_bench.cpp -- would words learned from their company find what the query's own words
** miss? Trains skip-gram vectors over whole words (letters and digits, lower-cased, camelCase
** split) on the given texts, then scores a bag of those vectors on known-item tasks.
**
**   word_vectors_bench TASK... --text FILE... [--epochs N] [--dim D] [--tokenizer BPE]
**
** TASK is written by "known_item_bench DIR [--questions Q] --task TASK". A chunk (cut as the
** engine cuts) or a query is the sum of its words' unit vectors, each weighted by its idf over
** the task's chunks, to unit length; every chunk is ranked exactly and R@10 / MRR@10 count the
** first ten chunks, over every query and over the vocabulary-mismatch slice. Each task is scored
** with untrained (random) vectors as the reference, with the trained ones, and, given the
** built-in encoder's tokenizer, with the trained ones of only the words it keeps as one token:
** what a bag of token rows could hold without a larger vocabulary.
*/
#include "common.h"
#include "known_item_task.h"

#include "tarnwick.h"

#include <chrono>
#include <cmath>
#include <random>
#include <unordered_map>

namespace
{

using bench::Query;
using bench::Tally;

void words_of(const std::string &text, std::vector<std::string> *out)
{
    std::string word;
    for (size_t i = 0; i <= text.size(); i++) {
        const unsigned char c = i < text.size() ? (unsigned char)text[i] : ' ';
        if (!isalnum(c)) {
            if (!word.empty()) {
                out->push_back(std::move(word));
                word.clear();
            }
            continue;
        }
        if (!word.empty() && isupper(c) && islower((unsigned char)text[i - 1])) {
            out->push_back(std::move(word));
            word.clear();
        }
        word.push_back((char)tolower(c));
    }
}

struct Vectors {
    int dim = 0;
    std::unordered_map<std::string, int> id;
    std::vector<std::string> word;
    std::vector<double> count;
    std::vector<float> v; /* word-major, unit rows once trained */
};

void normalize_rows(Vectors *w)
{
    for (size_t i = 0; i < w->word.size(); i++) {
        float *row = &w->v[i * (size_t)w->dim];
        double s = 0;
        for (int j = 0; j < w->dim; j++) {
            s += (double)row[j] * row[j];
        }
        const float inv = (float)(1.0 / (std::sqrt(s) + 1e-12));
        for (int j = 0; j < w->dim; j++) {
            row[j] *= inv;
        }
    }
}

/* Skip-gram with five negative samples from counts^0.75, window 5 (shrunk at random), frequent
** words subsampled at 1e-4, the rate falling linearly from 0.025. */
Vectors train(const std::vector<std::string> &paths, int epochs, int dim)
{
    std::vector<std::string> tokens;
    for (const std::string &p : paths) {
        words_of(bench::read_bytes(p), &tokens);
    }
    std::unordered_map<std::string, long> counts;
    for (const std::string &t : tokens) {
        counts[t]++;
    }
    std::vector<std::pair<long, std::string>> order;
    for (auto &[w, c] : counts) {
        if (c >= 5 && w.size() < 40) {
            order.emplace_back(c, w);
        }
    }
    std::sort(order.rbegin(), order.rend());
    Vectors w;
    w.dim = dim;
    double total = 0;
    for (auto &[c, word] : order) {
        w.id[word] = (int)w.word.size();
        w.word.push_back(word);
        w.count.push_back((double)c);
        total += (double)c;
    }
    const size_t n = w.word.size();
    std::vector<int> seq;
    seq.reserve(tokens.size());
    for (const std::string &t : tokens) {
        auto it = w.id.find(t);
        seq.push_back(it == w.id.end() ? -1 : it->second);
    }
    tokens = {};
    std::vector<int> table(1 << 24);
    double z = 0, acc = 0;
    for (double c : w.count) {
        z += std::pow(c, 0.75);
    }
    for (size_t i = 0, j = 0; i < n; i++) {
        acc += std::pow(w.count[i], 0.75) / z;
        for (; j < table.size() && (double)j / (double)table.size() < acc; j++) {
            table[j] = (int)i;
        }
    }
    std::mt19937_64 rng(1);
    std::uniform_real_distribution<float> init(-0.5f / (float)dim, 0.5f / (float)dim);
    w.v.resize(n * dim);
    for (float &x : w.v) {
        x = init(rng);
    }
    std::vector<float> out(n * dim, 0.0f), grad(dim);
    const long steps = (long)epochs * (long)seq.size();
    const auto t0 = bench::Clock::now();
    for (long step = 0; step < steps; step++) {
        const size_t pos = (size_t)(step % (long)seq.size());
        const int word = seq[pos];
        if (word < 0) {
            continue;
        }
        const double f = w.count[word] / total;
        if ((std::sqrt(f / 1e-4) + 1) * 1e-4 / f < (double)(rng() % 1000000) / 1e6) {
            continue;
        }
        const float rate = 0.025f * std::max(1e-4f, 1.0f - (float)step / (float)steps);
        const int shrink = (int)(rng() % 5);
        for (int o = -5 + shrink; o <= 5 - shrink; o++) {
            const long p = (long)pos + o;
            if (o == 0 || p < 0 || p >= (long)seq.size() || seq[p] < 0) {
                continue;
            }
            float *in = &w.v[(size_t)seq[p] * dim];
            std::fill(grad.begin(), grad.end(), 0.0f);
            for (int k = 0; k <= 5; k++) {
                const int target = k == 0 ? word : table[rng() % table.size()];
                if (k > 0 && target == word) {
                    continue;
                }
                float *o_row = &out[(size_t)target * dim];
                float d = 0;
                for (int j = 0; j < dim; j++) {
                    d += in[j] * o_row[j];
                }
                const float s = d > 6 ? 1 : d < -6 ? 0 : 1 / (1 + std::exp(-d));
                const float g = ((k == 0 ? 1.0f : 0.0f) - s) * rate;
                for (int j = 0; j < dim; j++) {
                    grad[j] += g * o_row[j];
                    o_row[j] += g * in[j];
                }
            }
            for (int j = 0; j < dim; j++) {
                in[j] += grad[j];
            }
        }
        if (step % 10000000 == 0 && step > 0) {
            fprintf(stderr,
                    "word_vectors_bench: %ld of %ld words, %.0f s\n",
                    step,
                    steps,
                    bench::seconds_since(t0));
        }
    }
    normalize_rows(&w);
    fprintf(stderr,
            "word_vectors_bench: %zu words of %zu in the texts, %d epochs, %.0f s\n",
            n,
            seq.size(),
            epochs,
            bench::seconds_since(t0));
    return w;
}

/* The words of w that the tokenizer encodes as one token, with or without a space before. */
std::unordered_map<std::string, int> one_token_words(const Vectors &w, const char *bpe_path)
{
    std::unordered_map<std::string, int> kept;
    TrnBpe *bpe = trn_bpe_load(bpe_path);
    if (!bpe) {
        fprintf(stderr, "word_vectors_bench: cannot read the tokenizer %s\n", bpe_path);
        exit(1);
    }
    uint32_t ids[8];
    for (auto &[word, i] : w.id) {
        if (trn_bpe_encode(bpe, word.c_str(), ids, 8) == 3
            || trn_bpe_encode(bpe, (" " + word).c_str(), ids, 8) == 3) {
            kept[word] = i;
        }
    }
    trn_bpe_free(bpe);
    return kept;
}

void score(const char *label, const Vectors &w, const std::unordered_map<std::string, int> &known,
           const std::vector<std::string> &chunks, const std::vector<int> &chunk_file,
           const std::vector<Query> &queries)
{
    const int dim = w.dim;
    std::vector<std::vector<std::string>> words(chunks.size());
    std::unordered_map<std::string, int> df;
    for (size_t c = 0; c < chunks.size(); c++) {
        words_of(chunks[c], &words[c]);
        std::vector<std::string> distinct = words[c];
        std::sort(distinct.begin(), distinct.end());
        distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
        for (const std::string &d : distinct) {
            df[d]++;
        }
    }
    const double n = (double)chunks.size();
    const auto embed = [&](const std::vector<std::string> &ws, float *v) {
        std::fill(v, v + dim, 0.0f);
        for (const std::string &word : ws) {
            auto it = known.find(word);
            if (it == known.end()) {
                continue;
            }
            auto d = df.find(word);
            const double idf = std::log((n + 1) / ((d == df.end() ? 0 : d->second) + 0.5));
            const float g = (float)std::max(0.0, idf);
            const float *row = &w.v[(size_t)it->second * dim];
            for (int j = 0; j < dim; j++) {
                v[j] += g * row[j];
            }
        }
        double s = 0;
        for (int j = 0; j < dim; j++) {
            s += (double)v[j] * v[j];
        }
        for (int j = 0; j < dim; j++) {
            v[j] = (float)(v[j] / (std::sqrt(s) + 1e-12));
        }
    };
    std::vector<float> vec(chunks.size() * dim), q(dim), sc(chunks.size());
    for (size_t c = 0; c < chunks.size(); c++) {
        embed(words[c], &vec[c * dim]);
    }
    std::vector<int> order(chunks.size());
    Tally all, slice;
    double ns = 0; /* queries in the mismatch slice */
    for (const Query &query : queries) {
        std::vector<std::string> ws;
        words_of(query.text, &ws);
        embed(ws, q.data());
        for (size_t c = 0; c < chunks.size(); c++) {
            float d = 0;
            for (int j = 0; j < dim; j++) {
                d += q[j] * vec[c * dim + j];
            }
            sc[c] = d;
            order[c] = (int)c;
        }
        const size_t top = std::min<size_t>(10, chunks.size());
        std::partial_sort(order.begin(), order.begin() + (long)top, order.end(), [&](int a, int b) {
            return sc[a] > sc[b];
        });
        int rank = 0;
        for (size_t r = 0; r < top && !rank; r++) {
            const int f = chunk_file[order[r]];
            if (std::find(query.answers.begin(), query.answers.end(), f) != query.answers.end()) {
                rank = (int)r + 1;
            }
        }
        all.add(rank);
        if (query.mismatch) {
            slice.add(rank);
            ns += 1;
        }
    }
    const double nq = (double)queries.size();
    printf("| %s | %zu | %.3f / %.3f | %.3f / %.3f |\n",
           label,
           known.size(),
           all.hits / nq,
           all.rr / nq,
           slice.hits / std::max(1.0, ns),
           slice.rr / std::max(1.0, ns));
}

} // namespace

int main(int argc, char **argv)
{
    std::vector<std::string> tasks, texts;
    int epochs = 1, dim = 200;
    const char *tokenizer = nullptr;
    bool in_texts = false;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--text") == 0) {
            in_texts = true;
        } else if (strcmp(argv[i], "--epochs") == 0 && i + 1 < argc) {
            epochs = (int)bench::parse_count("word_vectors_bench", argv[++i]);
        } else if (strcmp(argv[i], "--dim") == 0 && i + 1 < argc) {
            dim = (int)bench::parse_count("word_vectors_bench", argv[++i]);
        } else if (strcmp(argv[i], "--tokenizer") == 0 && i + 1 < argc) {
            tokenizer = argv[++i];
        } else {
            (in_texts ? texts : tasks).push_back(argv[i]);
        }
    }
    if (tasks.empty() || texts.empty()) {
        fprintf(stderr,
                "usage: word_vectors_bench TASK... --text FILE... [--epochs N] [--dim D] "
                "[--tokenizer BPE]\n");
        return 2;
    }
    Vectors trained = train(texts, epochs, dim);
    Vectors random = trained;
    std::mt19937_64 rng(7);
    std::normal_distribution<float> normal;
    for (float &x : random.v) {
        x = normal(rng);
    }
    normalize_rows(&random);
    std::unordered_map<std::string, int> one_token;
    if (tokenizer) {
        one_token = one_token_words(trained, tokenizer);
    }
    for (const std::string &task : tasks) {
        std::vector<bench::File> files;
        std::vector<Query> queries;
        if (!bench::read_task(task.c_str(), &files, &queries)) {
            fprintf(stderr, "word_vectors_bench: cannot read task %s\n", task.c_str());
            return 1;
        }
        std::vector<std::string> chunks;
        std::vector<int> chunk_file;
        bench::cut_task_chunks(files, &chunks, &chunk_file);
        printf("\n%s: %zu files, %zu chunks, %zu queries\n\n| word vectors | words | R@10 / "
               "MRR@10 | mismatch slice |\n|---|---:|---:|---:|\n",
               task.c_str(),
               files.size(),
               chunks.size(),
               queries.size());
        score("random (reference)", random, random.id, chunks, chunk_file, queries);
        score("skip-gram", trained, trained.id, chunks, chunk_file, queries);
        if (tokenizer) {
            score(
                "skip-gram, one-token words only", trained, one_token, chunks, chunk_file, queries);
        }
        fflush(stdout);
    }
    return 0;
}
