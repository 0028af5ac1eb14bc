/*
** graph_bench.cpp -- the engine's HNSW graph next to hnswlib on the same vectors.
**
**   graph_bench [--n N] [--queries Q] [--real N] [--real-dir DIR] [--seed S]
**               [--no-synthetic] [--no-real]
**
** Two data sets, each indexed by both graphs with the same parameters (M 16, ef_construction 100,
** ef 50), single-threaded, and queried for the 10 nearest neighbours of Q held-out points:
**
**   synthetic  N (default 100,000) unit vectors of 512 floats drawn from seeded clusters: each
**              point is a random cluster centre plus a random mix of 16 shared directions plus a
**              little isotropic noise, normalised. Uniform random vectors in 512 dimensions have
**              no near neighbours, so they would say nothing about recall.
**   real       embeddings of real text: pieces of 100 to 200 bytes of the HTML-stripped Python
**              documentation (or any directory of text and HTML), embedded with the engine's
**              seed-42 encoder. Embedding takes tens of milliseconds a piece on a small machine,
**              so the default is 4,000 base pieces (plus the queries), a few minutes; --real
**              sets the count.
**
** The engine's graph is built through probe.h (each vector copied into a slot of its own, then
** linked at a drawn level as ingestion links it), so the timing covers the graph only. For each
** graph it
** prints build time, query time per query (both CPU time of the one thread, which other work on
** a shared machine disturbs less than wall time) and recall@10 against exact search, then the
** ratios engine / hnswlib (below 1 means the engine is faster). The engine keeps M links per node
** at level 0 where hnswlib keeps 2M; a third row runs hnswlib limited to M there as well, which
** separates the cost of that choice from the cost of the implementation.
*/
#include "common.h"
#include "encoder/encoder.h"
#include "encoder/vec.h"
#include "index/hnsw.h"
#include "probe.h"
#include "tarnwick.h"
#include "text/files.h"

#include <hnswlib/hnswlib.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include <time.h>

namespace fs = std::filesystem;
using bench::Clock;

namespace
{

constexpr int DIM = 512;
constexpr int GRAPH_M = 16;
constexpr int EF_CONSTRUCTION = 100;
constexpr int EF_SEARCH = 50;
constexpr int K = 10;

struct Options {
    long n = 100000;
    long queries = 1000;
    long real = 4000;
    std::string real_dir = "/usr/share/doc/python3/html";
    unsigned seed = 1234;
    bool synthetic = true;
    bool real_run = true;
};

// A data set: n base vectors, then q query vectors, all unit length, row-major.
struct DataSet {
    std::string name;
    long n = 0;
    long q = 0;
    std::vector<float> base;
    std::vector<float> queries;
};

void normalize(float *v)
{
    double s = 0;
    for (int i = 0; i < DIM; i++) {
        s += (double)v[i] * v[i];
    }
    if (s > 1e-24) {
        float inv = (float)(1.0 / std::sqrt(s));
        for (int i = 0; i < DIM; i++) {
            v[i] *= inv;
        }
    }
}

DataSet make_synthetic(long n, long q, unsigned seed)
{
    constexpr int CLUSTERS = 200;
    constexpr int LATENT = 16;
    std::mt19937_64 rng(seed);
    std::normal_distribution<float> g(0.0f, 1.0f);
    std::vector<float> centres((size_t)CLUSTERS * DIM), dirs((size_t)LATENT * DIM);
    for (float &x : centres) {
        x = g(rng);
    }
    for (float &x : dirs) {
        x = g(rng);
    }
    for (int c = 0; c < CLUSTERS; c++) {
        normalize(&centres[(size_t)c * DIM]);
    }
    for (int j = 0; j < LATENT; j++) {
        normalize(&dirs[(size_t)j * DIM]);
    }
    const float spread = 0.9f / std::sqrt((float)LATENT);
    const float noise = 0.15f / std::sqrt((float)DIM);
    auto draw = [&](float *out) {
        const float *c = &centres[(size_t)(rng() % CLUSTERS) * DIM];
        std::copy(c, c + DIM, out);
        for (int j = 0; j < LATENT; j++) {
            float z = g(rng) * spread;
            const float *d = &dirs[(size_t)j * DIM];
            for (int i = 0; i < DIM; i++) {
                out[i] += z * d[i];
            }
        }
        for (int i = 0; i < DIM; i++) {
            out[i] += g(rng) * noise;
        }
        normalize(out);
    };
    DataSet d;
    d.name = "synthetic clustered";
    d.n = n;
    d.q = q;
    d.base.resize((size_t)n * DIM);
    d.queries.resize((size_t)q * DIM);
    for (long i = 0; i < n; i++) {
        draw(&d.base[(size_t)i * DIM]);
    }
    for (long i = 0; i < q; i++) {
        draw(&d.queries[(size_t)i * DIM]);
    }
    return d;
}

// Pieces of 100 to 200 bytes of real text, cut at spaces, from the files under dir in path order.
std::vector<std::string> real_pieces(const std::string &dir, long want)
{
    std::vector<std::string> pieces;
    for (const std::string &path : bench::prose_files(dir)) {
        std::string text = bench::prose_text(path);
        size_t pos = 0;
        while (pos + 100 < text.size() && (long)pieces.size() < want) {
            size_t end = std::min(text.size(), pos + 200);
            size_t cut = text.rfind(' ', end);
            if (cut == std::string::npos || cut < pos + 100) {
                cut = end;
            }
            pieces.push_back(text.substr(pos, cut - pos));
            pos = cut + 1;
        }
        if ((long)pieces.size() >= want) {
            break;
        }
    }
    return pieces;
}

bool make_real(const Options &o, DataSet *d)
{
    long total = o.real + o.queries;
    std::vector<std::string> pieces = real_pieces(o.real_dir, total);
    if ((long)pieces.size() < total) {
        fprintf(stderr,
                "graph_bench: only %zu text pieces under %s, %ld needed\n",
                pieces.size(),
                o.real_dir.c_str(),
                total);
        return false;
    }
    // Every 11th piece is a query, so queries come from the same files as the base.
    TrnEncoder enc;
    encoder_init(&enc, 42);
    d->name = "real text (" + o.real_dir + ", seed-42 encoder)";
    d->n = o.real;
    d->q = o.queries;
    d->base.resize((size_t)d->n * DIM);
    d->queries.resize((size_t)d->q * DIM);
    long nb = 0, nq = 0;
    Clock::time_point t0 = Clock::now();
    for (long i = 0; i < total; i++) {
        bool to_query = (i % 11 == 10 && nq < d->q) || nb == d->n;
        float *out = to_query ? &d->queries[(size_t)nq++ * DIM] : &d->base[(size_t)nb++ * DIM];
        trn_encoder_embed_text(&enc, pieces[(size_t)i].c_str(), out);
        normalize(out);
    }
    double secs = bench::seconds_since(t0);
    printf("embedded %ld pieces in %.1f s (%.2f ms each)\n", total, secs, 1e3 * secs / total);
    encoder_release(&enc);
    return true;
}

// Exact top K of every query by dot product, computed in blocks with one matrix product each.
std::vector<uint32_t> exact_neighbors(const DataSet &d)
{
    std::vector<uint32_t> truth((size_t)d.q * K);
    constexpr long BLOCK = 4096;
    std::vector<float> sims((size_t)d.q * BLOCK);
    std::vector<std::vector<std::pair<float, uint32_t>>> best(d.q);
    for (long b0 = 0; b0 < d.n; b0 += BLOCK) {
        long nb = std::min(BLOCK, d.n - b0);
        sgemm(false,
              true,
              (int)d.q,
              (int)nb,
              DIM,
              1.0f,
              d.queries.data(),
              DIM,
              &d.base[(size_t)b0 * DIM],
              DIM,
              0.0f,
              sims.data(),
              (int)nb);
        for (long qi = 0; qi < d.q; qi++) {
            std::vector<std::pair<float, uint32_t>> &h = best[qi];
            for (long j = 0; j < nb; j++) {
                h.push_back({-sims[(size_t)qi * nb + j], (uint32_t)(b0 + j)});
            }
            std::partial_sort(h.begin(), h.begin() + std::min<size_t>(K, h.size()), h.end());
            h.resize(std::min<size_t>(K, h.size()));
        }
    }
    for (long qi = 0; qi < d.q; qi++) {
        for (int j = 0; j < K && j < (int)best[qi].size(); j++) {
            truth[(size_t)qi * K + j] = best[qi][j].second;
        }
    }
    return truth;
}

struct Figures {
    double build_s = 0;
    double query_s = 0;
    double recall = 0;
};

double recall_of(const std::vector<uint32_t> &got, const std::vector<uint32_t> &truth, long q)
{
    long hit = 0;
    for (long qi = 0; qi < q; qi++) {
        const uint32_t *t = &truth[(size_t)qi * K];
        for (int j = 0; j < K; j++) {
            hit += std::count(t, t + K, got[(size_t)qi * K + j]) ? 1 : 0;
        }
    }
    return (double)hit / (double)(q * K);
}

Figures run_engine(const DataSet &d, const std::vector<uint32_t> &truth, unsigned seed)
{
    TrnConfig cfg = {nullptr, nullptr, DIM, GRAPH_M, EF_CONSTRUCTION, EF_SEARCH};
    TrnEngine *e = trn_open(&cfg);
    probe_seed_levels(e, seed); // the levels should not change between runs
    Figures f;
    double t0 = bench::thread_cpu_seconds();
    probe_reserve(e, (uint64_t)d.n);
    for (long i = 0; i < d.n; i++) {
        probe_link(e, probe_append(e, "", nullptr, nullptr, 0, &d.base[(size_t)i * DIM]));
    }
    f.build_s = bench::thread_cpu_seconds() - t0;

    std::vector<uint32_t> got((size_t)d.q * K, UINT32_MAX);
    float scores[K];
    t0 = bench::thread_cpu_seconds();
    for (long qi = 0; qi < d.q; qi++) {
        hnsw_query(e, &d.queries[(size_t)qi * DIM], K, &got[(size_t)qi * K], scores);
    }
    f.query_s = bench::thread_cpu_seconds() - t0;
    f.recall = recall_of(got, truth, d.q);
    trn_close(e);
    return f;
}

/* hnswlib as it is (2M links at level 0), or with level0_links set to M as the engine keeps. */
Figures run_hnswlib(const DataSet &d, const std::vector<uint32_t> &truth, unsigned seed,
                    size_t level0_links)
{
    hnswlib::InnerProductSpace space(DIM);
    Figures f;
    std::vector<uint32_t> got((size_t)d.q * K, UINT32_MAX);
    {
        hnswlib::HierarchicalNSW<float> index(&space, (size_t)d.n, GRAPH_M, EF_CONSTRUCTION, seed);
        if (level0_links > 0) {
            index.maxM0_ = level0_links; /* the lists keep room for 2M; only M are used */
        }
        double t0 = bench::thread_cpu_seconds();
        for (long i = 0; i < d.n; i++) {
            index.addPoint(&d.base[(size_t)i * DIM], (hnswlib::labeltype)i);
        }
        f.build_s = bench::thread_cpu_seconds() - t0;
        index.setEf(EF_SEARCH);
        t0 = bench::thread_cpu_seconds();
        for (long qi = 0; qi < d.q; qi++) {
            auto res = index.searchKnn(&d.queries[(size_t)qi * DIM], K);
            for (int j = (int)res.size() - 1; j >= 0; j--) {
                got[(size_t)qi * K + j] = (uint32_t)res.top().second;
                res.pop();
            }
        }
        f.query_s = bench::thread_cpu_seconds() - t0;
    }
    f.recall = recall_of(got, truth, d.q);
    return f;
}

void report(const DataSet &d, unsigned seed)
{
    printf("\n## %s: n=%ld, %ld queries, dim=%d, M=%d, ef_construction=%d, ef=%d, one "
           "thread\n\n",
           d.name.c_str(),
           d.n,
           d.q,
           DIM,
           GRAPH_M,
           EF_CONSTRUCTION,
           EF_SEARCH);
    fflush(stdout);
    std::vector<uint32_t> truth = exact_neighbors(d);
    Figures ours = run_engine(d, truth, seed);
    Figures ref = run_hnswlib(d, truth, seed, 0);
    Figures ref_m = run_hnswlib(d, truth, seed, GRAPH_M);
    printf("| graph                     | build s | inserts/s | query us | queries/s | recall@10 "
           "|\n");
    printf("|---------------------------|--------:|----------:|---------:|----------:|----------:"
           "|\n");
    const Figures *rows[3] = {&ours, &ref, &ref_m};
    const char *names[3] = {
        "tarnwick                 ", "hnswlib                  ", "hnswlib, M links at lvl 0"};
    for (int r = 0; r < 3; r++) {
        const Figures &f = *rows[r];
        printf("| %s | %7.2f | %9.0f | %8.1f | %9.0f | %9.4f |\n",
               names[r],
               f.build_s,
               d.n / f.build_s,
               1e6 * f.query_s / d.q,
               d.q / f.query_s,
               f.recall);
    }
    printf("\nratio tarnwick/hnswlib: build time %.2f, query time %.2f, recall@10 difference "
           "%+.4f\n",
           ours.build_s / ref.build_s,
           ours.query_s / ref.query_s,
           ours.recall - ref.recall);
    printf("ratio to hnswlib with M links at level 0 as well: build time %.2f, query time %.2f, "
           "recall@10 difference %+.4f\n",
           ours.build_s / ref_m.build_s,
           ours.query_s / ref_m.query_s,
           ours.recall - ref_m.recall);
    fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    Options o;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        bool has_value = i + 1 < argc;
        if (a == "--n" && has_value) {
            o.n = bench::parse_count("graph_bench", argv[++i]);
        } else if (a == "--queries" && has_value) {
            o.queries = bench::parse_count("graph_bench", argv[++i]);
        } else if (a == "--real" && has_value) {
            o.real = bench::parse_count("graph_bench", argv[++i]);
        } else if (a == "--real-dir" && has_value) {
            o.real_dir = argv[++i];
        } else if (a == "--seed" && has_value) {
            o.seed = (unsigned)bench::parse_count("graph_bench", argv[++i]);
        } else if (a == "--no-synthetic") {
            o.synthetic = false;
        } else if (a == "--no-real") {
            o.real_run = false;
        } else {
            fprintf(stderr,
                    "usage: graph_bench [--n N] [--queries Q] [--real N] [--real-dir DIR] "
                    "[--seed S] [--no-synthetic] [--no-real]\n");
            return 2;
        }
    }
    if (o.synthetic) {
        report(make_synthetic(o.n, o.queries, o.seed), o.seed);
    }
    if (o.real_run) {
        DataSet d;
        printf("\nreal text: embedding %ld pieces (%ld base + %ld queries; --real sets the "
               "base count)\n",
               o.real + o.queries,
               o.real,
               o.queries);
        fflush(stdout);
        if (make_real(o, &d)) {
            report(d, o.seed);
        }
    }
    return 0;
}
