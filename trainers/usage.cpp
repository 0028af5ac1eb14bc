/*
** usage.cpp -- the word usage vectors of usage.h.
*/
#include "usage.h"

#include "training.h"

#include <algorithm>
#include <cmath>

namespace trn_train
{

void Cooccurrence::reset(const std::vector<uint32_t> &word)
{
    number_of.assign(word.size(), -1);
    token_of.clear();
    std::vector<int32_t> number_of_word(word.size(), -1);
    for (size_t t = 0; t < word.size(); t++) {
        const uint32_t w = word[t];
        if (w == NO_WORD || w >= word.size()) {
            continue;
        }
        if (number_of_word[w] < 0) {
            number_of_word[w] = (int32_t)token_of.size();
            token_of.push_back(w);
        }
        number_of[t] = number_of_word[w];
    }
    pair.assign((size_t)size() * (size_t)size(), 0.0f);
    seen.assign((size_t)size(), 0.0);
}

void Cooccurrence::add(const uint32_t *ids, size_t n, int span)
{
    std::vector<int32_t> words;
    words.reserve(n);
    for (size_t i = 0; i < n; i++) {
        const int32_t w = ids[i] < number_of.size() ? number_of[ids[i]] : -1;
        if (w >= 0) {
            words.push_back(w);
        }
    }
    const size_t size_w = (size_t)size();
    for (size_t i = 0; i < words.size(); i++) {
        const size_t a = (size_t)words[i];
        seen[a] += 1.0;
        for (size_t j = i + 1; j < words.size() && j <= i + (size_t)span; j++) {
            const size_t b = (size_t)words[j];
            pair[a * size_w + b] += 1.0f;
            pair[b * size_w + a] += 1.0f;
        }
    }
}

bool count_cooccurrence(const CorpusSampler &sampler, const TrnBpe *bpe,
                        const std::vector<uint32_t> &word, int windows, int span,
                        std::mt19937_64 &rng, Cooccurrence *counts, std::string *err)
{
    counts->reset(word);
    const uint64_t size = sampler.size();
    const size_t len = (size_t)std::min<uint64_t>(size, CHUNK_BYTES);
    std::string window(len, ' ');
    std::vector<uint32_t> ids;
    for (int w = 0; w < windows; w++) {
        const uint64_t off = size > len ? rng() % (size - len + 1) : 0;
        if (!sampler.read_at(off, window.data(), len, err)) {
            return false;
        }
        std::replace(window.begin(), window.end(), '\0', ' ');
        tokenize(bpe, window, ids);
        counts->add(ids.data(), ids.size(), span);
    }
    return true;
}

std::vector<float> positive_pmi(const Cooccurrence &counts, double alpha)
{
    const size_t n = (size_t)counts.size();
    std::vector<double> row_total(n, 0.0), smoothed(n, 0.0);
    double smoothed_sum = 0;
    for (size_t a = 0; a < n; a++) {
        for (size_t b = 0; b < n; b++) {
            row_total[a] += counts.pair[a * n + b];
        }
        smoothed[a] = std::pow(row_total[a], alpha);
        smoothed_sum += smoothed[a];
    }
    std::vector<float> m(n * n, 0.0f);
    for (size_t a = 0; a < n; a++) {
        for (size_t b = 0; b < n; b++) {
            const double c = counts.pair[a * n + b];
            if (c <= 0) {
                continue;
            }
            const double pmi = std::log(c * smoothed_sum / (row_total[a] * smoothed[b]));
            m[a * n + b] = pmi > 0 ? (float)pmi : 0.0f;
        }
    }
    return m;
}

void symmetric_eigen(const std::vector<double> &a_in, int n, std::vector<double> *values,
                     std::vector<double> *vectors)
{
    std::vector<double> a = a_in;
    std::vector<double> &v = *vectors;
    v.assign((size_t)n * n, 0.0);
    for (int i = 0; i < n; i++) {
        v[(size_t)i * n + i] = 1.0;
    }
    double total = 0;
    for (double x : a) {
        total += x * x;
    }
    for (int sweep = 0; sweep < 60; sweep++) {
        double off = 0;
        for (int p = 0; p < n; p++) {
            for (int q = p + 1; q < n; q++) {
                off += a[(size_t)p * n + q] * a[(size_t)p * n + q];
            }
        }
        if (off <= 1e-22 * total || off == 0) {
            break;
        }
        for (int p = 0; p < n; p++) {
            for (int q = p + 1; q < n; q++) {
                const double apq = a[(size_t)p * n + q];
                if (std::fabs(apq) < 1e-300) {
                    continue;
                }
                /* the rotation that zeroes a[p][q]: t = tan of its angle, the smaller root */
                const double theta = (a[(size_t)q * n + q] - a[(size_t)p * n + p]) / (2 * apq);
                const double t =
                    (theta >= 0 ? 1.0 : -1.0) / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
                const double c = 1.0 / std::sqrt(t * t + 1.0), s = t * c;
                for (int k = 0; k < n; k++) {
                    const double akp = a[(size_t)k * n + p], akq = a[(size_t)k * n + q];
                    a[(size_t)k * n + p] = c * akp - s * akq;
                    a[(size_t)k * n + q] = s * akp + c * akq;
                }
                for (int k = 0; k < n; k++) {
                    const double apk = a[(size_t)p * n + k], aqk = a[(size_t)q * n + k];
                    a[(size_t)p * n + k] = c * apk - s * aqk;
                    a[(size_t)q * n + k] = s * apk + c * aqk;
                }
                for (int k = 0; k < n; k++) {
                    const double vkp = v[(size_t)k * n + p], vkq = v[(size_t)k * n + q];
                    v[(size_t)k * n + p] = c * vkp - s * vkq;
                    v[(size_t)k * n + q] = s * vkp + c * vkq;
                }
            }
        }
    }
    /* descending order of the values, the vectors' columns with them */
    std::vector<int> order((size_t)n);
    for (int i = 0; i < n; i++) {
        order[(size_t)i] = i;
    }
    std::stable_sort(order.begin(), order.end(), [&a, n](int x, int y) {
        return a[(size_t)x * n + x] > a[(size_t)y * n + y];
    });
    values->resize((size_t)n);
    std::vector<double> sorted((size_t)n * n);
    for (int j = 0; j < n; j++) {
        const int from = order[(size_t)j];
        (*values)[(size_t)j] = a[(size_t)from * n + from];
        for (int k = 0; k < n; k++) {
            sorted[(size_t)k * n + j] = v[(size_t)k * n + from];
        }
    }
    v.swap(sorted);
}

namespace
{

/* Orthonormalises the rows (each of length len) of q in place by modified Gram-Schmidt; a row that
** is (numerically) in the span of the earlier ones becomes zero. */
void orthonormalise_rows(std::vector<float> &q, int rows, int len)
{
    for (int i = 0; i < rows; i++) {
        float *qi = &q[(size_t)i * len];
        for (int pass = 0; pass < 2; pass++) {
            for (int j = 0; j < i; j++) {
                const float *qj = &q[(size_t)j * len];
                double dot = 0;
                for (int k = 0; k < len; k++) {
                    dot += (double)qi[k] * qj[k];
                }
                for (int k = 0; k < len; k++) {
                    qi[k] -= (float)dot * qj[k];
                }
            }
        }
        double norm = 0;
        for (int k = 0; k < len; k++) {
            norm += (double)qi[k] * qi[k];
        }
        norm = std::sqrt(norm);
        for (int k = 0; k < len; k++) {
            qi[k] = norm > 1e-20 ? (float)(qi[k] / norm) : 0.0f;
        }
    }
}

} // namespace

void truncated_svd(const std::vector<float> &m, int rows, int cols, int rank, int power_iters,
                   uint64_t seed, std::vector<float> *u, std::vector<float> *sigma)
{
    const int l = std::min(rank + 16, std::min(rows, cols));
    std::mt19937_64 rng(seed);
    std::normal_distribution<float> normal(0.0f, 1.0f);
    std::vector<float> omega((size_t)l * cols); /* l x cols */
    for (float &x : omega) {
        x = normal(rng);
    }
    /* qt (l x rows) spans the range of m: qt = omega m^T, then (m m^T) applied power_iters times */
    std::vector<float> qt((size_t)l * rows), zt((size_t)l * cols);
    sgemm(false,
          true,
          l,
          rows,
          cols,
          1.0f,
          omega.data(),
          cols,
          m.data(),
          cols,
          0.0f,
          qt.data(),
          rows);
    orthonormalise_rows(qt, l, rows);
    for (int it = 0; it < power_iters; it++) {
        sgemm(false,
              false,
              l,
              cols,
              rows,
              1.0f,
              qt.data(),
              rows,
              m.data(),
              cols,
              0.0f,
              zt.data(),
              cols);
        orthonormalise_rows(zt, l, cols);
        sgemm(false,
              true,
              l,
              rows,
              cols,
              1.0f,
              zt.data(),
              cols,
              m.data(),
              cols,
              0.0f,
              qt.data(),
              rows);
        orthonormalise_rows(qt, l, rows);
    }
    /* b = q^T m (l x cols); its Gram matrix b b^T = s diag(sigma^2) s^T gives u = q s */
    sgemm(
        false, false, l, cols, rows, 1.0f, qt.data(), rows, m.data(), cols, 0.0f, zt.data(), cols);
    std::vector<float> gram((size_t)l * l);
    sgemm(false, true, l, l, cols, 1.0f, zt.data(), cols, zt.data(), cols, 0.0f, gram.data(), l);
    std::vector<double> g(gram.begin(), gram.end()), values, vectors;
    for (int i = 0; i < l; i++) {
        for (int j = 0; j < i; j++) { /* exactly symmetric, whatever the rounding */
            const double mean = 0.5 * (g[(size_t)i * l + j] + g[(size_t)j * l + i]);
            g[(size_t)i * l + j] = g[(size_t)j * l + i] = mean;
        }
    }
    symmetric_eigen(g, l, &values, &vectors);
    std::vector<float> st((size_t)rank * l); /* the leading rank eigenvectors as rows */
    sigma->resize((size_t)rank);
    for (int j = 0; j < rank; j++) {
        (*sigma)[(size_t)j] = (float)std::sqrt(std::max(0.0, values[(size_t)j]));
        for (int k = 0; k < l; k++) {
            st[(size_t)j * l + k] = (float)vectors[(size_t)k * l + j];
        }
    }
    u->assign((size_t)rank * rows, 0.0f);
    sgemm(false, false, rank, rows, l, 1.0f, st.data(), l, qt.data(), rows, 0.0f, u->data(), rows);
}

std::vector<float> usage_vectors(const Cooccurrence &counts, uint32_t vocab, int width,
                                 uint64_t seed)
{
    const int n = counts.size();
    std::vector<float> out((size_t)vocab * width, 0.0f);
    const int rank = std::min(width, n);
    if (rank < 1) {
        return out;
    }
    std::vector<float> u, sigma;
    truncated_svd(positive_pmi(counts, USAGE_ALPHA), n, n, rank, 2, seed, &u, &sigma);
    std::vector<float> vec((size_t)n * width, 0.0f);
    std::vector<double> mean((size_t)width, 0.0);
    int kept = 0;
    for (int w = 0; w < n; w++) {
        if (counts.seen[(size_t)w] < USAGE_MIN_COUNT) {
            continue;
        }
        kept++;
        for (int j = 0; j < rank; j++) {
            const float x = u[(size_t)j * n + w] * std::sqrt(sigma[(size_t)j]);
            vec[(size_t)w * width + j] = x;
            mean[(size_t)j] += x;
        }
    }
    for (int w = 0; w < n && kept > 0; w++) {
        if (counts.seen[(size_t)w] < USAGE_MIN_COUNT) {
            continue;
        }
        float *row = &vec[(size_t)w * width];
        double norm = 0;
        for (int j = 0; j < width; j++) {
            row[j] -= (float)(mean[(size_t)j] / kept);
            norm += (double)row[j] * row[j];
        }
        for (int j = 0; j < width; j++) {
            row[j] = norm > 0 ? (float)(row[j] / std::sqrt(norm)) : 0.0f;
        }
    }
    for (uint32_t t = 0; t < vocab && t < counts.number_of.size(); t++) {
        const int32_t w = counts.number_of[t];
        if (w >= 0) {
            std::copy_n(&vec[(size_t)w * width], width, &out[(size_t)t * width]);
        }
    }
    return out;
}

} // namespace trn_train
