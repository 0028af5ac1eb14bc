/*
** trainer_run.cpp -- one run of the trainer: the starting encoder, the bag-of-words phase, the
** steps, the loss log and the weights file.
**
** Output files: OUT.tmp is created before the first step (after every argument and input check)
** and renamed to OUT only when the weights are completely written, so a refused, failed or
** interrupted run leaves no weights file at OUT. The loss log is written as the run goes, one
** record per progress line, so the application can chart a run in progress.
*/
#include "training.h"

#include "corpus.h"
#include "usage.h"

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include <cblas.h>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace trn_train
{

namespace
{

/* The temporary weights file, removed when a signal ends the run. */
char g_tmp_path[4096];

extern "C" void remove_tmp_and_exit(int sig)
{
    if (g_tmp_path[0]) {
        unlink(g_tmp_path);
    }
    _exit(128 + sig);
}

/* The engine ends the process with exit(1) when an allocation fails; leave no partial file. */
extern "C" void remove_tmp_at_exit(void)
{
    if (g_tmp_path[0]) {
        unlink(g_tmp_path);
    }
}

/* Bytes of the version 2 or 3 weights file the engine writes for this layout. */
uint64_t weights_file_size(const ParamLayout &layout, const TrnBpe *bpe)
{
    uint64_t header = 32 + 28;
    if (bpe) {
        header += 4 + 8 * (uint64_t)bpe->n_merges;
    }
    return header + 4 * (uint64_t)layout.total;
}

bool file_size_is(const char *path, uint64_t want)
{
    struct stat st;
    return stat(path, &st) == 0 && (uint64_t)st.st_size == want;
}

/* Writes the weights with their metadata to OUT.tmp and renames it to OUT. Returns false after
** one "trainer: ..." line. */
bool save_weights(const TrainOptions &opts, uint64_t corpus_size, int steps, double final_loss,
                  const TrnEncoder *enc)
{
    const std::string tmp = opts.out + ".tmp";
    TrnWeightsMeta meta{};
    meta.meta_u32_0 = (uint32_t)steps;
    meta.meta_u32_1 = (uint32_t)opts.batch | (opts.init_path.empty() ? 0u : META_FROM_FILE);
    meta.meta_f32_0 = opts.lr;
    meta.meta_f32_1 = (float)final_loss;
    meta.meta_u64 = corpus_size;
    uint32_t version = 0;
    std::string err;
    if (!trn_encoder_save_weights_flags(enc, tmp.c_str(), &meta, opts.half ? TRN_WEIGHTS_HALF : 0)
        || (opts.half ? !check_weights_file(tmp, &version, &err)
                      : !file_size_is(tmp.c_str(),
                                      weights_file_size(make_layout(enc->vocab_size), enc->bpe)))) {
        fprintf(stderr, "trainer: cannot write %s\n", tmp.c_str());
        return false;
    }
    if (rename(tmp.c_str(), opts.out.c_str()) != 0) {
        fprintf(stderr,
                "trainer: cannot move %s to %s: %s\n",
                tmp.c_str(),
                opts.out.c_str(),
                strerror(errno));
        return false;
    }
    return true;
}

/* The lines of the loss log at path except the records of steps after last. */
std::string log_records_until(const std::string &path, int last)
{
    std::string kept;
    FILE *f = fopen(path.c_str(), "r");
    if (!f) {
        return "step,loss\n";
    }
    char line[8192];
    while (fgets(line, sizeof line, f)) {
        char *end = nullptr;
        long step = strtol(line, &end, 10);
        if (end != line && *end == ',' && step > last) {
            continue;
        }
        kept += line;
    }
    fclose(f);
    return kept;
}

/* True when both tokenizers hold the same merges in the same order. */
bool same_merges(const TrnBpe *a, const TrnBpe *b)
{
    return a->n_merges == b->n_merges
           && (a->n_merges == 0
               || memcmp(a->merges, b->merges, sizeof a->merges[0] * a->n_merges) == 0);
}

/* The starting encoder: the seeded random one (with the tokenizer of --bpe), or the weights of
** --init with their own tokenizer, if any. Returns false after one "trainer: ..." line. */
bool init_encoder(const TrainOptions &opts, TrnEncoder *enc)
{
    TrnBpe *bpe = nullptr;
    if (!opts.bpe_path.empty()) {
        bpe = trn_bpe_load(opts.bpe_path.c_str());
        if (!bpe) {
            fprintf(stderr, "trainer: cannot read tokenizer %s\n", opts.bpe_path.c_str());
            return false;
        }
    }
    if (opts.init_path.empty()) {
        if (bpe) {
            encoder_init_bpe(enc, ENCODER_SEED, bpe); /* the encoder owns bpe now */
        } else {
            encoder_init(enc, ENCODER_SEED);
        }
        return true;
    }
    uint32_t version = 0;
    std::string err;
    if (!check_weights_file(opts.init_path, &version, &err)) {
        fprintf(stderr, "trainer: %s\n", err.c_str());
        trn_bpe_free(bpe);
        return false;
    }
    encoder_init(enc, ENCODER_SEED);
    if (!trn_encoder_load_weights(enc, opts.init_path.c_str())) {
        fprintf(stderr, "trainer: cannot read weights %s\n", opts.init_path.c_str());
        trn_bpe_free(bpe);
        encoder_release(enc);
        return false;
    }
    if (bpe && (!enc->bpe || !same_merges(bpe, enc->bpe))) {
        fprintf(stderr,
                enc->bpe ? "trainer: tokenizer %s differs from the one in %s\n"
                         : "trainer: tokenizer %s cannot be added to %s, a byte-level encoder\n",
                opts.bpe_path.c_str(),
                opts.init_path.c_str());
        trn_bpe_free(bpe);
        encoder_release(enc);
        return false;
    }
    trn_bpe_free(bpe);
    return true;
}

/* The bag-of-words phase of --bag, on batches of its own (drawn with a seed of their own, so the
** model's steps draw what they would draw without it). Returns false after one "trainer: ..."
** line. */
bool train_bag(const TrainOptions &opts, CorpusSampler &sampler, const PairFile &mined,
               TrnEncoder *enc, FILE *progress)
{
    BagTrainer bag(enc, opts.bag, opts.threads);
    std::mt19937_64 rng(SAMPLER_SEED + 4), mined_rng(SAMPLER_SEED + 5);
    std::vector<std::string> texts;
    std::string err;
    double loss_sum = 0;
    int loss_count = 0;
    for (int k = 1; k <= opts.bag.steps; k++) {
        if (!sampler.draw(opts.bag.batch, rng, texts, &err)) {
            fprintf(stderr, "trainer: %s\n", err.c_str());
            return false;
        }
        if (mined.size() > 0) {
            mined.mix_into(texts, opts.pairs_share, mined_rng);
        }
        const float lr = bag.lr_at(k);
        loss_sum += bag.step(texts);
        loss_count++;
        if (k == 1 || k % 50 == 0 || k == opts.bag.steps) {
            fprintf(progress,
                    "bag step %d/%d loss %.4f lr %.6g\n",
                    k,
                    opts.bag.steps,
                    loss_sum / loss_count,
                    (double)lr);
            fflush(progress);
            loss_sum = 0;
            loss_count = 0;
        }
    }
    bag.join(token_stems(enc->bpe, enc->vocab_size));
    bag.store(enc);
    return true;
}

} // namespace

int run_trainer(const TrainOptions &opts, FILE *progress)
{
    openblas_set_num_threads(1);

    CorpusSampler sampler;
    std::string err;
    if (!sampler.open(opts.corpus, &err)) {
        fprintf(stderr, "trainer: %s\n", err.c_str());
        return 1;
    }
    const uint64_t need = (uint64_t)opts.batch * MIN_BYTES_PER_PAIR;
    if (sampler.size() < need) {
        fprintf(stderr,
                "trainer: corpus %s holds %llu bytes, too few for a batch of %d pairs (needs at "
                "least %llu)\n",
                opts.corpus.c_str(),
                (unsigned long long)sampler.size(),
                opts.batch,
                (unsigned long long)need);
        return 1;
    }
    PairFile mined;
    if (!opts.pairs_path.empty() && !mined.load(opts.pairs_path, &err)) {
        fprintf(stderr, "trainer: %s\n", err.c_str());
        return 1;
    }
    TrnEncoder enc;
    if (!init_encoder(opts, &enc)) {
        return 1;
    }
    if (enc.bpe) {
        /* 254 tokens cover about a whole chunk: queries and crops may come from all of it */
        sampler.set_visible(CHUNK_BYTES);
    }
    sampler.set_cloze(opts.cloze);
    if (opts.idf) {
        std::mt19937_64 idf_rng(SAMPLER_SEED + 1); /* leaves the batches as they would be */
        std::vector<float> rarity;
        const std::vector<uint32_t> word = token_words(enc.bpe, enc.vocab_size);
        if (!token_rarity(sampler, enc.bpe, word, IDF_WINDOWS, idf_rng, &rarity, &err)) {
            fprintf(stderr, "trainer: %s\n", err.c_str());
            encoder_release(&enc);
            return 1;
        }
        std::vector<float> usage;
        if (opts.usage > 0) {
            std::mt19937_64 usage_rng(SAMPLER_SEED + 2);
            Cooccurrence counts;
            if (!count_cooccurrence(
                    sampler, enc.bpe, word, USAGE_WINDOWS, USAGE_SPAN, usage_rng, &counts, &err)) {
                fprintf(stderr, "trainer: %s\n", err.c_str());
                encoder_release(&enc);
                return 1;
            }
            usage = usage_vectors(counts, enc.vocab_size, DIM - IDF_SPARE_DIMS, SAMPLER_SEED + 3);
        }
        bag_of_tokens(&enc, rarity, word, usage, opts.usage);
        if (opts.bag_phase && !train_bag(opts, sampler, mined, &enc, progress)) {
            encoder_release(&enc);
            return 1;
        }
    } else if (opts.bag_phase) {
        /* A profile that starts from the built-in encoder trains its word rows on the user's text
        ** and stays a bag of words, which the engine embeds without the forward pass. */
        if (!encoder_prepare_bag(&enc)) {
            fprintf(stderr,
                    "trainer: --bag continues only a bag-of-words encoder, and %s is not one\n",
                    opts.init_path.c_str());
            encoder_release(&enc);
            return 1;
        }
        if (!train_bag(opts, sampler, mined, &enc, progress)) {
            encoder_release(&enc);
            return 1;
        }
    }

    const std::string tmp = opts.out + ".tmp";
    const std::string loss_path = loss_path_for(opts.out);
    int probe = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (probe < 0) {
        fprintf(stderr, "trainer: cannot write %s: %s\n", tmp.c_str(), strerror(errno));
        encoder_release(&enc);
        return 1;
    }
    close(probe);
    if (tmp.size() < sizeof g_tmp_path) {
        memcpy(g_tmp_path, tmp.c_str(), tmp.size() + 1);
        static bool at_exit_set = false;
        if (!at_exit_set) {
            atexit(remove_tmp_at_exit);
            at_exit_set = true;
        }
        signal(SIGTERM, remove_tmp_and_exit);
        signal(SIGINT, remove_tmp_and_exit);
        signal(SIGHUP, remove_tmp_and_exit);
    }
    /* a continued run keeps the earlier run's records up to the step it continues after */
    std::string earlier_log;
    if (opts.steps_done > 0) {
        earlier_log = log_records_until(loss_path, opts.steps_done);
    }
    FILE *loss_log = fopen(loss_path.c_str(), "w");
    if (!loss_log) {
        fprintf(stderr, "trainer: cannot write %s: %s\n", loss_path.c_str(), strerror(errno));
        unlink(tmp.c_str());
        encoder_release(&enc);
        return 1;
    }
    fputs(opts.steps_done > 0 ? earlier_log.c_str() : "step,loss\n", loss_log);
    if (!opts.init_path.empty()) {
        /* one field, so readers of step,loss records skip it */
        fprintf(loss_log, "# initialised from %s\n", opts.init_path.c_str());
    } else if (opts.idf) {
        fprintf(loss_log,
                "# initialised as tokens weighted by rarity over %d windows, %.2f of each word's "
                "direction from its usage, then %d bag-of-words steps of %d pairs\n",
                IDF_WINDOWS,
                opts.usage,
                opts.bag.steps,
                opts.bag.batch);
    }
    fflush(loss_log);

    int status = 0;
    double final_loss = 0;
    {
        Trainer trainer(&enc, opts.batch, opts.lr, opts.steps, opts.threads);
        trainer.set_steps_done(opts.steps_done);
        trainer.set_group_rates(opts.rates);
        std::mt19937_64 rng(SAMPLER_SEED), mined_rng(SAMPLER_SEED + 6);
        std::vector<std::string> texts;
        /* the batches of the steps already done, drawn again so the run goes on as it would */
        for (int k = 1; k <= opts.steps_done && status == 0; k++) {
            if (!sampler.draw(opts.batch, rng, texts, &err)) {
                fprintf(stderr, "trainer: %s\n", err.c_str());
                status = 1;
            }
            if (mined.size() > 0) {
                mined.mix_into(texts, opts.pairs_share, mined_rng);
            }
        }
        double loss_sum = 0;
        int loss_count = 0;
        uint64_t tokens_at_print = 0;
        auto t_print = std::chrono::steady_clock::now();
        for (int k = opts.steps_done + 1; k <= opts.steps && status == 0; k++) {
            if (!sampler.draw(opts.batch, rng, texts, &err)) {
                fprintf(stderr, "trainer: %s\n", err.c_str());
                status = 1;
                break;
            }
            if (mined.size() > 0) {
                mined.mix_into(texts, opts.pairs_share, mined_rng);
            }
            float lr = trainer.next_lr();
            double loss = trainer.step(texts);
            loss_sum += loss;
            loss_count++;
            if (k == opts.steps_done + 1 || k % 10 == 0 || k == opts.steps) {
                auto now = std::chrono::steady_clock::now();
                double secs = std::chrono::duration<double>(now - t_print).count();
                double tok_s =
                    (double)(trainer.tokens_seen() - tokens_at_print) / (secs > 0 ? secs : 1e-9);
                double mean = loss_sum / loss_count;
                fprintf(progress,
                        "step %d/%d loss %.4f lr %.6g tok/s %.0f\n",
                        k,
                        opts.steps,
                        mean,
                        (double)lr,
                        tok_s);
                fflush(progress);
                fprintf(loss_log, "%d,%.4f\n", k, mean);
                fflush(loss_log);
                final_loss = mean;
                loss_sum = 0;
                loss_count = 0;
                tokens_at_print = trainer.tokens_seen();
                t_print = now;
            }
            if (opts.save_every > 0 && k % opts.save_every == 0 && k < opts.steps) {
                trainer.store(&enc);
                if (!save_weights(opts, sampler.size(), k, final_loss, &enc)) {
                    status = 1;
                }
            }
        }
        trainer.store(&enc);
    }
    fclose(loss_log);

    if (status == 0 && !save_weights(opts, sampler.size(), opts.steps, final_loss, &enc)) {
        status = 1;
    }
    if (status != 0) {
        unlink(tmp.c_str());
    }
    g_tmp_path[0] = '\0';
    encoder_release(&enc);
    return status;
}

} // namespace trn_train
