/*
** trainer_args.cpp -- the trainer's command line and the check of a weights file before it is
** read, each refusal one "trainer: ..." line.
*/
#include "training.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/stat.h>

namespace trn_train
{

std::string loss_path_for(const std::string &out)
{
    const std::string ext = ".tten";
    if (out.size() >= ext.size() && out.compare(out.size() - ext.size(), ext.size(), ext) == 0) {
        return out.substr(0, out.size() - ext.size()) + ".loss";
    }
    return out + ".loss";
}

namespace
{

const char USAGE[] = "trainer: usage: trainer CORPUS OUT STEPS BATCH LR HEADS LAYERS [--bpe PATH] "
                     "[--threads N] [--init WEIGHTS] [--steps-done K] [--save-every N] [--rates "
                     "NORM,EMBEDDING,MATRIX] [--cloze P] [--idf] [--usage SHARE] [--bag "
                     "STEPS,BATCH,RATE] [--pairs FILE] "
                     "[--pairs-share P] [--half]";

bool parse_int(const char *s, long lo, long hi, int *out)
{
    errno = 0;
    char *end = nullptr;
    long v = strtol(s, &end, 10);
    if (errno != 0 || end == s || *end != '\0' || v < lo || v > hi) {
        return false;
    }
    *out = (int)v;
    return true;
}

/* "NORM,EMBEDDING,MATRIX", each a number from 0 to 100. */
bool parse_rates(const char *s, GroupRates *rates)
{
    float v[3];
    const char *p = s;
    for (int i = 0; i < 3; i++) {
        errno = 0;
        char *end = nullptr;
        v[i] = strtof(p, &end);
        if (errno != 0 || end == p || !std::isfinite(v[i]) || v[i] < 0.0f || v[i] > 100.0f) {
            return false;
        }
        if (*end != (i < 2 ? ',' : '\0')) {
            return false;
        }
        p = end + 1;
    }
    rates->norm = v[0];
    rates->embedding = v[1];
    rates->matrix = v[2];
    return true;
}

int usage_error(const char *fmt, const char *arg)
{
    fprintf(stderr, "trainer: ");
    fprintf(stderr, fmt, arg);
    fprintf(stderr, "\n");
    return 2;
}

} // namespace

bool check_weights_file(const std::string &path, uint32_t *version, std::string *err)
{
    std::unique_ptr<FILE, int (*)(FILE *)> f(fopen(path.c_str(), "rb"), fclose);
    if (!f) {
        *err = "cannot open weights " + path + ": " + strerror(errno);
        return false;
    }
    char magic[4] = {0};
    uint32_t h[8] = {0}; /* version, vocabulary, positions, width, heads, ff, layers, merges */
    size_t got = fread(magic, 1, 4, f.get()) == 4 ? fread(h, 4, 7, f.get()) : 0;
    if (got != 7 || memcmp(magic, "TTEN", 4) != 0 || h[0] < 1 || h[0] > 4) {
        *err = path + " is not an encoder weights file";
        return false;
    }
    if (h[2] != TRN_ENCODER_MAX_SEQ || h[3] != TRN_ENCODER_DIM || h[4] != TRN_ENCODER_HEADS
        || h[5] != TRN_ENCODER_FF || h[6] != TRN_ENCODER_LAYERS
        || (h[0] < 3 && h[1] != TRN_ENCODER_BYTE_VOCAB) || h[1] < TRN_ENCODER_BYTE_VOCAB) {
        char buf[256];
        snprintf(buf,
                 sizeof buf,
                 " has the wrong shape (vocabulary %u, %u positions, width %u, %u heads, "
                 "feed-forward %u, %u layers); the engine loads 256 positions, width 512, 8 "
                 "heads, feed-forward 2048, 2 layers",
                 h[1],
                 h[2],
                 h[3],
                 h[4],
                 h[5],
                 h[6]);
        *err = path + buf;
        return false;
    }
    uint64_t want = 32;
    if (h[0] >= 2) {
        want += 28;
    }
    if (h[0] >= 3) {
        want += 4 + 8 * (uint64_t)(h[1] - TRN_ENCODER_BYTE_VOCAB);
    }
    const ParamLayout layout = make_layout((int)h[1]);
    if (h[0] < 4) {
        want += 4 * (uint64_t)layout.total;
    }
    /* version 4: each tensor's size follows from its storage tag (0 float32, 1 half, 2 zeros) */
    for (int t = 0; h[0] == 4 && t < TENSOR_COUNT; t++) {
        uint32_t tag = 0;
        if (fseeko(f.get(), (off_t)want, SEEK_SET) != 0 || fread(&tag, 4, 1, f.get()) != 1
            || tag > 2) {
            char name[32];
            *err = path + " is not a complete weights file (tensor "
                   + tensor_name(t, name, sizeof name) + " has no valid storage tag)";
            return false;
        }
        want += 4 + (tag == 2 ? 0 : (tag == 1 ? 2 : 4) * (uint64_t)layout.size[t]);
    }
    struct stat st;
    if (fstat(fileno(f.get()), &st) != 0 || (uint64_t)st.st_size != want) {
        *err = path + " is not a complete weights file (" + std::to_string((long long)st.st_size)
               + " bytes, expected " + std::to_string(want) + ")";
        return false;
    }
    *version = h[0];
    return true;
}

int parse_trainer_args(int argc, char **argv, TrainOptions *opts)
{
    std::vector<const char *> pos;
    bool have_threads = false, have_bpe = false, have_init = false, have_done = false,
         have_save = false, have_rates = false, have_cloze = false, have_usage = false,
         have_bag = false, have_pairs_share = false;
    for (int i = 1; i < argc; i++) {
        const char *a = argv[i];
        if (strcmp(a, "--idf") == 0 || strcmp(a, "--half") == 0) {
            bool &flag = a[2] == 'i' ? opts->idf : opts->half;
            if (flag) {
                return usage_error("%s given twice", a);
            }
            flag = true;
            continue;
        }
        const bool is_option = strcmp(a, "--bpe") == 0 || strcmp(a, "--threads") == 0
                               || strcmp(a, "--init") == 0 || strcmp(a, "--steps-done") == 0
                               || strcmp(a, "--save-every") == 0 || strcmp(a, "--rates") == 0
                               || strcmp(a, "--cloze") == 0 || strcmp(a, "--usage") == 0
                               || strcmp(a, "--bag") == 0 || strcmp(a, "--pairs") == 0
                               || strcmp(a, "--pairs-share") == 0;
        if (is_option) {
            if (i + 1 >= argc) {
                return usage_error("%s needs a value", a);
            }
            const char *val = argv[++i];
            if (strcmp(a, "--bpe") == 0 || strcmp(a, "--init") == 0) {
                bool &seen = a[2] == 'b' ? have_bpe : have_init;
                if (seen || val[0] == '\0') {
                    return usage_error("%s given twice or empty", a);
                }
                (a[2] == 'b' ? opts->bpe_path : opts->init_path) = val;
                seen = true;
            } else if (strcmp(a, "--threads") == 0) {
                if (have_threads || !parse_int(val, 1, MAX_THREADS, &opts->threads)) {
                    return usage_error("bad thread count '%s' (expected 1 to 256)", val);
                }
                have_threads = true;
            } else if (strcmp(a, "--steps-done") == 0) {
                if (have_done || !parse_int(val, 0, MAX_STEPS, &opts->steps_done)) {
                    return usage_error("bad --steps-done '%s' (expected 0 to 10000000)", val);
                }
                have_done = true;
            } else if (strcmp(a, "--save-every") == 0) {
                if (have_save || !parse_int(val, 1, MAX_STEPS, &opts->save_every)) {
                    return usage_error("bad --save-every '%s' (expected 1 to 10000000)", val);
                }
                have_save = true;
            } else if (strcmp(a, "--pairs") == 0) {
                if (!opts->pairs_path.empty() || val[0] == '\0') {
                    return usage_error("%s given twice or empty", a);
                }
                opts->pairs_path = val;
            } else if (strcmp(a, "--pairs-share") == 0) {
                char *end = nullptr;
                const double v = strtod(val, &end);
                if (have_pairs_share || end == val || *end != '\0' || !(v >= 0.0 && v <= 1.0)) {
                    return usage_error("bad --pairs-share '%s' (expected a share from 0 to 1)",
                                       val);
                }
                opts->pairs_share = v;
                have_pairs_share = true;
            } else if (strcmp(a, "--bag") == 0) {
                int steps = 0, batch = 0;
                float lr = 0;
                char tail = 0;
                if (have_bag || sscanf(val, "%d,%d,%f%c", &steps, &batch, &lr, &tail) != 3
                    || steps < 0 || steps > MAX_STEPS || batch < 2 || batch > MAX_BAG_BATCH
                    || !(lr > 0.0f && lr <= 1.0f)) {
                    return usage_error("bad --bag '%s' (expected STEPS,BATCH,RATE: 0 to 10000000 "
                                       "steps of 2 to 4096 pairs at a rate above 0, at most 1)",
                                       val);
                }
                opts->bag = BagOptions{steps, batch, lr};
                opts->bag_phase = true;
                have_bag = true;
            } else if (strcmp(a, "--cloze") == 0 || strcmp(a, "--usage") == 0) {
                const bool cloze = a[2] == 'c';
                char *end = nullptr;
                const double v = strtod(val, &end);
                if ((cloze ? have_cloze : have_usage) || end == val || *end != '\0'
                    || !(v >= 0.0 && v <= 1.0)) {
                    return usage_error(cloze ? "bad --cloze '%s' (expected a share from 0 to 1)"
                                             : "bad --usage '%s' (expected a share from 0 to 1)",
                                       val);
                }
                (cloze ? opts->cloze : opts->usage) = v;
                (cloze ? have_cloze : have_usage) = true;
            } else {
                if (have_rates || !parse_rates(val, &opts->rates)) {
                    return usage_error("bad --rates '%s' (expected three numbers from 0 to 100, "
                                       "as NORM,EMBEDDING,MATRIX)",
                                       val);
                }
                have_rates = true;
            }
        } else if (a[0] == '-' && a[1] == '-') {
            return usage_error("unknown option %s", a);
        } else {
            pos.push_back(a);
        }
    }
    if (pos.size() != 7) {
        fprintf(stderr, "%s\n", USAGE);
        return 2;
    }
    opts->corpus = pos[0];
    opts->out = pos[1];
    if (opts->corpus.empty() || opts->out.empty()) {
        fprintf(stderr, "%s\n", USAGE);
        return 2;
    }
    if (!parse_int(pos[2], 0, MAX_STEPS, &opts->steps)) {
        return usage_error("bad step count '%s' (expected 0 to 10000000)", pos[2]);
    }
    if (!parse_int(pos[3], 2, MAX_BATCH, &opts->batch)) {
        return usage_error("bad batch size '%s' (expected 2 to 128)", pos[3]);
    }
    {
        errno = 0;
        char *end = nullptr;
        float lr = strtof(pos[4], &end);
        if (errno != 0 || end == pos[4] || *end != '\0' || !std::isfinite(lr) || lr <= 0.0f
            || lr > 1.0f) {
            return usage_error("bad learning rate '%s' (expected a number above 0, at most 1)",
                               pos[4]);
        }
        opts->lr = lr;
    }
    if (!parse_int(pos[5], 0, 1 << 20, &opts->heads)) {
        return usage_error("bad head count '%s'", pos[5]);
    }
    if (!parse_int(pos[6], 0, 1 << 20, &opts->layers)) {
        return usage_error("bad layer count '%s'", pos[6]);
    }
    if (opts->steps_done > 0 && (opts->init_path.empty() || opts->steps_done >= opts->steps)) {
        fprintf(stderr,
                "trainer: --steps-done %d needs --init and fewer steps than %d\n",
                opts->steps_done,
                opts->steps);
        return 2;
    }
    if (have_usage && !opts->idf) {
        fprintf(stderr, "trainer: --usage shapes the start that --idf makes and needs it\n");
        return 2;
    }
    if (have_bag && !opts->idf && opts->init_path.empty()) {
        fprintf(
            stderr,
            "trainer: --bag trains a bag of words: the start --idf makes, or one --init reads\n");
        return 2;
    }
    if (opts->idf && !opts->init_path.empty()) {
        fprintf(stderr, "trainer: --idf starts a new encoder and cannot go with --init\n");
        return 2;
    }
    if (opts->heads != TRN_ENCODER_HEADS || opts->layers != TRN_ENCODER_LAYERS) {
        fprintf(stderr,
                "trainer: the engine loads only 8 heads and 2 layers (asked for %d heads, %d "
                "layers)\n",
                opts->heads,
                opts->layers);
        return 2;
    }
    return 0;
}

} // namespace trn_train
