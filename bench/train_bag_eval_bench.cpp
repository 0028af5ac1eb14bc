/*
** train_bag_eval_bench.cpp -- the known-item task of known_item_bench, scored in seconds for an
** encoder that is a bag of words, to choose between starting points and training recipes.
**
**   train_bag_eval_bench TASK WEIGHTS... [--check N]
**
** TASK is written by "known_item_bench DIR [--questions Q] --task TASK" (the same files, queries,
** answers and mismatch slice). Each text is cut into chunks as the engine cuts them (800 bytes,
** 200 overlapping). An encoder whose position embeddings and layer outputs (wo, w2, b2) are all
** zero (what "trainer --idf" starts from, and what the bag-of-words training phase keeps) embeds a
** text from its distinct tokens' rows after the final norm, each weighing 1 + ln of its count, to
** unit length: the engine computes those rows once per token (encoder_prepare_bag) instead of
** running the layers per chunk. Any other encoder runs through the layers (slow, as in
** known_item_bench). --check N embeds the first N chunks of a bag of words from the rows set up
** once and from rows computed per token, and prints the largest difference (default 20).
**
** The rankings are exact (every chunk scored): "every file" ranks all chunks (known_item_bench's
** mode 5, there through the graph); "ten files" keeps the 40 best chunks that belong to the ten
** files whose mean vectors lie closest (mode 0). R@10 and MRR@10 as in known_item_bench, over
** every query and over the vocabulary-mismatch slice.
*/
#include "encoder/encoder.h"
#include "encoder/vec.h"
#include "known_item_task.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace
{

constexpr int DIM = TRN_ENCODER_DIM;

using bench::File;
using bench::Query;
using bench::read_task;
using bench::Tally;

struct Embedder {
    TrnEncoder *enc;
    bool bag = false;

    void setup() { bag = encoder_prepare_bag(enc); }

    void embed(const std::string &text, float *v) const
    {
        trn_encoder_embed_text(enc, text.c_str(), v);
    }

    void embed_row_by_row(const std::string &text, float *v) const
    {
        float *rows = enc->bag_rows;
        enc->bag_rows = nullptr;
        trn_encoder_embed_text(enc, text.c_str(), v);
        enc->bag_rows = rows;
    }
};

} // namespace

int main(int argc, char **argv)
{
    std::vector<const char *> weights;
    const char *task = nullptr;
    int check = 20;
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--check") == 0 && i + 1 < argc) {
            check = atoi(argv[++i]);
        } else if (!task) {
            task = argv[i];
        } else {
            weights.push_back(argv[i]);
        }
    }
    if (!task || weights.empty()) {
        fprintf(stderr, "usage: train_bag_eval_bench TASK WEIGHTS... [--check N]\n");
        return 2;
    }
    std::vector<File> items;
    std::vector<Query> queries;
    if (!read_task(task, &items, &queries)) {
        fprintf(stderr, "train_bag_eval_bench: cannot read task %s\n", task);
        return 1;
    }
    std::vector<std::string> chunks;
    std::vector<int> chunk_file;
    bench::cut_task_chunks(items, &chunks, &chunk_file);
    size_t n_slice = 0;
    for (const Query &q : queries) {
        n_slice += q.mismatch ? 1 : 0;
    }
    printf("%s: %zu files, %zu chunks, %zu queries, %zu in the mismatch slice\n\n",
           task,
           items.size(),
           chunks.size(),
           queries.size(),
           n_slice);
    printf("| encoder | ten files R@10 / MRR@10 | every file | slice, ten files | slice, every "
           "file | largest difference | s |\n|---|---:|---:|---:|---:|---:|---:|\n");
    for (const char *w : weights) {
        auto t0 = std::chrono::steady_clock::now();
        TrnEncoder enc;
        encoder_init(&enc, 42);
        if (strcmp(w, "random") != 0 && !trn_encoder_load_weights(&enc, w)) {
            fprintf(stderr, "train_bag_eval_bench: cannot load weights %s\n", w);
            return 1;
        }
        Embedder em;
        em.enc = &enc;
        em.setup();
        std::vector<float> vec(chunks.size() * DIM), q(DIM), ref(DIM);
        float worst = 0;
        for (size_t c = 0; c < chunks.size(); c++) {
            em.embed(chunks[c], &vec[c * DIM]);
            if ((int)c < check && em.bag) {
                em.embed_row_by_row(chunks[c], ref.data());
                for (int d = 0; d < DIM; d++) {
                    worst = std::max(worst, std::fabs(ref[d] - vec[c * DIM + d]));
                }
            }
        }
        /* each file's mean vector, to unit length, as the engine's document index keeps it */
        std::vector<float> centroid(items.size() * DIM, 0.0f);
        for (size_t c = 0; c < chunks.size(); c++) {
            for (int d = 0; d < DIM; d++) {
                centroid[(size_t)chunk_file[c] * DIM + d] += vec[c * DIM + d];
            }
        }
        for (size_t f = 0; f < items.size(); f++) {
            vec_normalize(&centroid[f * DIM], DIM);
        }
        Tally ten, every, slice_ten, slice_every;
        std::vector<float> score(chunks.size()), fscore(items.size());
        std::vector<int> order(chunks.size()), forder(items.size());
        for (const Query &query : queries) {
            auto is_answer = [&query](int f) {
                return std::find(query.answers.begin(), query.answers.end(), f)
                       != query.answers.end();
            };
            em.embed(query.text, q.data());
            for (size_t c = 0; c < chunks.size(); c++) {
                score[c] = vec_dot(q.data(), &vec[c * DIM], DIM);
                order[c] = (int)c;
            }
            const size_t top = std::min<size_t>(40, chunks.size());
            std::partial_sort(
                order.begin(), order.begin() + (long)top, order.end(), [&score](int a, int b) {
                    return score[a] > score[b];
                });
            int rank = 0;
            for (size_t r = 0; r < 10 && r < top && !rank; r++) {
                rank = is_answer(chunk_file[order[r]]) ? (int)r + 1 : 0;
            }
            every.add(rank);
            if (query.mismatch) {
                slice_every.add(rank);
            }
            for (size_t f = 0; f < items.size(); f++) {
                fscore[f] = vec_dot(q.data(), &centroid[f * DIM], DIM);
                forder[f] = (int)f;
            }
            const size_t tf = std::min<size_t>(10, items.size());
            std::partial_sort(
                forder.begin(), forder.begin() + (long)tf, forder.end(), [&fscore](int a, int b) {
                    return fscore[a] > fscore[b];
                });
            rank = 0;
            int kept = 0;
            for (size_t r = 0; r < top && kept < 10 && !rank; r++) {
                const int f = chunk_file[order[r]];
                if (std::find(forder.begin(), forder.begin() + (long)tf, f)
                    == forder.begin() + (long)tf) {
                    continue;
                }
                kept++;
                rank = is_answer(f) ? kept : 0;
            }
            ten.add(rank);
            if (query.mismatch) {
                slice_ten.add(rank);
            }
        }
        const double n = (double)queries.size(), ns = (double)std::max<size_t>(1, n_slice);
        const double secs =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
        printf("| %s%s | %.3f / %.3f | %.3f / %.3f | %.3f / %.3f | %.3f / %.3f | %.1e | %.0f |\n",
               w,
               em.bag ? "" : " (forward pass)",
               ten.hits / n,
               ten.rr / n,
               every.hits / n,
               every.rr / n,
               slice_ten.hits / ns,
               slice_ten.rr / ns,
               slice_every.hits / ns,
               slice_every.rr / ns,
               (double)worst,
               secs);
        fflush(stdout);
        encoder_release(&enc);
    }
    return 0;
}
