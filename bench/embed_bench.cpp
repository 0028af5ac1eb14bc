// embed_bench -- throughput of the text encoder and the tokenizer, each next to a reference
// measured in the same run.
//
//   embedding   full-length texts (256 positions) per second, and the GFLOP/s they reach
//               (2 x the multiply-adds of every matrix product) next to the GFLOP/s of bare
//               cblas_sgemm calls with exactly the same shapes; the ratio shows what everything
//               outside the matrix products costs. Then the same texts ENCODER_BATCH to a
//               forward pass (as indexing embeds them), against the same bare calls.
//   training    trn_bpe_train on a corpus of real text from /usr/share/doc, with the
//               application's 7,740 merges, next to the fixed part of a merge (clearing and
//               scanning the 2^20-slot table).
//   encoding    an 800-byte text with that tokenizer, next to a plain one-pass-per-merge loop
//               (whose output must match).
//
// Options: --embeds N (default 20), --rounds R (default 5), --corpus-mb X (default 10),
// --merges M (default 7740), --no-train. OpenBLAS threads as it is configured
// (OPENBLAS_NUM_THREADS); the embedding and its reference run under the same setting.
#include "common.h"
#include "encoder/encoder.h"
#include "encoder/vec.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace
{

using bench::Clock;

constexpr int D = TRN_ENCODER_DIM;

// The matrix products of one embedding of n positions, as the engine issues them.
std::vector<GemmShape> embeddingProducts(int n)
{
    std::vector<GemmShape> shapes(FORWARD_PRODUCTS);
    encoder_forward_shapes(n, shapes.data());
    return shapes;
}

// Multiply-adds of all matrix products of one embedding of n positions.
double matmulMacs(int n)
{
    double macs = 0;
    for (const GemmShape &s : embeddingProducts(n)) {
        macs += (double)s.m * s.n * s.k;
    }
    return macs;
}

void benchEmbedding(int embeds, int rounds)
{
    TrnEncoder enc;
    encoder_init(&enc, 42);
    std::string text;
    for (int i = 0; i < 300; i++) {
        text += (char)('a' + (i * 7) % 26);
    }
    float out[D];
    // The products of `embeds` embeddings, replayed on buffers of their own.
    std::vector<GemmShape> products;
    for (int i = 0; i < embeds; i++) {
        const std::vector<GemmShape> one = embeddingProducts(256);
        products.insert(products.end(), one.begin(), one.end());
    }
    trn_encoder_embed_text(&enc, text.c_str(), out); // creates the workspace
    bench::replay(embeddingProducts(256));
    // The same texts ENCODER_BATCH to a forward pass, as the indexing workers embed them.
    TrnScratch *batch = scratch_new_batch(ENCODER_BATCH);
    std::vector<const char *> texts(ENCODER_BATCH, text.c_str());
    std::vector<float> outs((size_t)ENCODER_BATCH * D);
    const int passes = (embeds + ENCODER_BATCH - 1) / ENCODER_BATCH;

    // Rounds alternate between the three, so a busy machine slows them alike; the best round of
    // each counts.
    double bestEmbed = 1e30, bestBatch = 1e30, bestReplay = 1e30;
    for (int r = 0; r < rounds; r++) {
        Clock::time_point t0 = Clock::now();
        for (int i = 0; i < embeds; i++) {
            trn_encoder_embed_text(&enc, text.c_str(), out);
        }
        bestEmbed = std::min(bestEmbed, bench::seconds_since(t0) / embeds);
        t0 = Clock::now();
        for (int i = 0; i < passes; i++) {
            encoder_embed_batch(&enc, batch, texts.data(), texts.size(), outs.data());
        }
        bestBatch = std::min(bestBatch, bench::seconds_since(t0) / (passes * ENCODER_BATCH));
        bestReplay = std::min(bestReplay, bench::replay(products) / embeds);
    }
    scratch_free(batch);
    double gflop = 2 * matmulMacs(256) / 1e9;
    printf("embedding (256 positions, %d x %d rounds, best round)\n", embeds, rounds);
    printf("  embeddings/s              %10.1f   (%.2f ms each)\n", 1 / bestEmbed, bestEmbed * 1e3);
    printf("  GFLOP/s, whole embedding  %10.1f   (%.3f GFLOP of matrix products each)\n",
           gflop / bestEmbed,
           gflop);
    printf("  GFLOP/s, bare sgemm calls %10.1f   (same shapes, %.2f ms)\n",
           gflop / bestReplay,
           bestReplay * 1e3);
    printf("  ratio                     %10.1f%%  (target >= 85%%)\n",
           100 * bestReplay / bestEmbed);
    printf("  %d a forward pass: embeddings/s %.1f, %.1f%% of the bare calls' rate\n",
           ENCODER_BATCH,
           1 / bestBatch,
           100 * bestReplay / bestBatch);
    encoder_release(&enc);
}

bool looksLikeText(const std::string &s)
{
    size_t odd = 0;
    for (unsigned char c : s) {
        if (c == 0) {
            return false;
        }
        if (c < 9 || (c > 13 && c < 32)) {
            odd++;
        }
    }
    return odd * 100 < s.size() + 1;
}

// Real text from the machine's documentation, in sorted path order so runs are comparable.
std::string buildCorpus(size_t target)
{
    namespace fs = std::filesystem;
    const char *roots[] = {
        "/usr/share/doc/python3/html/_sources", "/usr/share/common-licenses", "/usr/share/doc"};
    std::vector<std::string> paths;
    for (const char *root : roots) {
        std::error_code ec;
        std::vector<std::string> found;
        for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end;
             it.increment(ec)) {
            if (it->is_regular_file(ec) && it->path().extension() != ".gz") {
                found.push_back(it->path().string());
            }
        }
        std::sort(found.begin(), found.end());
        paths.insert(paths.end(), found.begin(), found.end());
    }
    std::string corpus;
    std::vector<std::string> seen;
    for (const std::string &p : paths) {
        if (corpus.size() >= target) {
            break;
        }
        FILE *f = fopen(p.c_str(), "rb");
        if (!f) {
            continue;
        }
        std::string body;
        char buf[65536];
        size_t got;
        while ((got = fread(buf, 1, sizeof buf, f)) > 0 && body.size() < (4u << 20)) {
            body.append(buf, got);
        }
        fclose(f);
        if (looksLikeText(body)) {
            corpus += body;
        }
    }
    if (corpus.size() > target) {
        corpus.resize(target);
    }
    return corpus;
}

// Encoding without any shortcut: one full pass over the sequence per merge.
std::vector<uint32_t> plainEncode(const TrnBpe *bpe, const std::string &text)
{
    std::vector<uint32_t> seq(text.begin(), text.end());
    for (uint32_t &id : seq) {
        id &= 0xFF;
    }
    for (uint32_t k = 0; k < bpe->n_merges; k++) {
        size_t w = 0;
        for (size_t r = 0; r < seq.size();) {
            if (r + 1 < seq.size() && seq[r] == bpe->merges[k][0]
                && seq[r + 1] == bpe->merges[k][1]) {
                seq[w++] = 260 + k;
                r += 2;
            } else {
                seq[w++] = seq[r++];
            }
        }
        seq.resize(w);
    }
    return seq;
}

void benchTokenizer(double corpusMb, int merges, int rounds)
{
    Clock::time_point t0 = Clock::now();
    std::string corpus = buildCorpus((size_t)(corpusMb * 1024 * 1024));
    printf("\ntokenizer training (%.1f MB of text from /usr/share/doc, built in %.1f s)\n",
           corpus.size() / 1048576.0,
           bench::seconds_since(t0));
    if (corpus.size() < 1024) {
        printf("  not enough text found\n");
        return;
    }

    // The fixed part of every merge: clearing and scanning 2^20 slots of 16 bytes.
    std::vector<uint64_t> table(2u << 20);
    t0 = Clock::now();
    uint64_t sink = 0;
    for (int i = 0; i < 20; i++) {
        memset(table.data(), 0, table.size() * 8);
        table[(size_t)i * 2 + 1] = (uint64_t)i;
        int64_t best = 0;
        for (size_t s = 0; s < table.size(); s += 2) {
            if ((int64_t)table[s + 1] > best) {
                best = (int64_t)table[s + 1];
                sink += s;
            }
        }
    }
    double fixedMs = bench::seconds_since(t0) / 20 * 1e3;

    FILE *saved = stderr;
    stderr = fopen("/dev/null", "w"); // the progress lines
    t0 = Clock::now();
    TrnBpe *bpe =
        trn_bpe_train(reinterpret_cast<const uint8_t *>(corpus.data()), corpus.size(), merges);
    double trainS = bench::seconds_since(t0);
    fclose(stderr);
    stderr = saved;
    printf("  %u merges (vocab %u) in %.1f s: %.2f ms per merge\n",
           bpe->n_merges,
           bpe->vocab_size,
           trainS,
           trainS * 1e3 / std::max(1u, bpe->n_merges));
    printf("  reference: clearing + scanning the table alone %.2f ms per merge (%.0f%% of it)%s\n",
           fixedMs,
           100 * fixedMs / (trainS * 1e3 / std::max(1u, bpe->n_merges)),
           sink == 42 ? " " : "");

    std::string text = corpus.substr(corpus.size() / 3, 800);
    uint32_t ids[256];
    int32_t n = 0;
    int reps = 200;
    double best = 1e30, bestPlain = 1e30;
    std::vector<uint32_t> plain;
    for (int r = 0; r < rounds; r++) {
        t0 = Clock::now();
        for (int i = 0; i < reps; i++) {
            n = trn_bpe_encode(bpe, text.c_str(), ids, 256);
        }
        best = std::min(best, bench::seconds_since(t0) / reps);
        t0 = Clock::now();
        for (int i = 0; i < reps / 10; i++) {
            plain = plainEncode(bpe, text);
        }
        bestPlain = std::min(bestPlain, bench::seconds_since(t0) / (reps / 10));
    }
    bool same = n >= 2 && (size_t)n - 2 == std::min<size_t>(plain.size(), 254)
                && std::equal(ids + 1, ids + n - 1, plain.begin());
    printf("\nencoding an 800-byte text with %u merges\n", bpe->n_merges);
    printf("  %d tokens in %.1f us; plain pass-per-merge loop %.1f us (%.1fx); outputs %s\n",
           n,
           best * 1e6,
           bestPlain * 1e6,
           bestPlain / best,
           same ? "match" : "DIFFER");
    trn_bpe_free(bpe);
}

} // namespace

int main(int argc, char **argv)
{
    int embeds = 20, rounds = 5, merges = 7740;
    double corpusMb = 10;
    bool train = true;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--embeds" && i + 1 < argc) {
            embeds = std::max(1, atoi(argv[++i]));
        } else if (a == "--rounds" && i + 1 < argc) {
            rounds = std::max(1, atoi(argv[++i]));
        } else if (a == "--corpus-mb" && i + 1 < argc) {
            corpusMb = atof(argv[++i]);
        } else if (a == "--merges" && i + 1 < argc) {
            merges = std::max(1, atoi(argv[++i]));
        } else if (a == "--no-train") {
            train = false;
        } else {
            fprintf(stderr,
                    "usage: embed_bench [--embeds N] [--rounds R] [--corpus-mb X] "
                    "[--merges M] [--no-train]\n");
            return 2;
        }
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const char *threads = getenv("OPENBLAS_NUM_THREADS");
    printf("OpenBLAS threads: %s\n\n", threads ? threads : "default (all cores)");
    benchEmbedding(embeds, rounds);
    if (train) {
        benchTokenizer(corpusMb, merges, rounds);
    }
    return 0;
}
