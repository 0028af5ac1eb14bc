/*
** train_bpe_main.cpp -- the tokenizer trainer program:
**   train_bpe CORPUS OUT MERGES [--words]
** Learns at most MERGES merges with the engine's tokenizer training from a sample of the corpus
** (read_bpe_sample in corpus.h: the whole corpus up to 1,000,000 bytes, else 64 evenly spaced
** blocks adding up to that) and writes the "TBPE" file to OUT through OUT.tmp. The progress
** lines are the tokenizer's own ("bpe: ..." on standard error). With --words the merges are
** learned over the word units of the whole corpus instead (word_bpe.h), which makes tens of
** thousands of merges in minutes and gives frequent words tokens of their own. Exit status 0 on
** success, 2 for wrong arguments, 1 after one "train_bpe: ..." line for anything else.
*/
#include "corpus.h"
#include "word_bpe.h"

#include "encoder/encoder.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr long MAX_MERGES = 1L << 20;

int fail(const std::string &msg)
{
    fprintf(stderr, "train_bpe: %s\n", msg.c_str());
    return 1;
}

std::string dir_of(const std::string &path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

/* A unit seen once is mostly a typo or an identifier of one file: no merge is made for it. */
constexpr int64_t WORD_MIN_COUNT = 2;

void word_progress(int32_t done)
{
    fprintf(stderr, "train_bpe: %d merges\n", done);
}

/* Merges over the corpus's word units, as the pairs the engine's tokenizer holds. */
bool word_merges(const std::string &corpus, long merges, std::vector<uint32_t> *pairs,
                 std::string *err)
{
    std::ifstream in(corpus, std::ios::binary);
    if (!in) {
        *err = "cannot read " + corpus + ": " + strerror(errno);
        return false;
    }
    trn_train::UnitCounts counts;
    std::string block(1 << 22, '\0');
    std::string carry;
    while (in) {
        in.read(block.data(), (std::streamsize)block.size());
        std::string text = carry + block.substr(0, (size_t)in.gcount());
        /* A unit must not be cut by the block's end: count up to the last newline, keep the rest.
         */
        size_t end = in ? text.rfind('\n') : std::string::npos;
        end = end == std::string::npos ? text.size() : end + 1;
        trn_train::count_word_units(text.data(), end, &counts);
        carry = text.substr(end);
    }
    if (in.bad()) {
        *err = "cannot read " + corpus;
        return false;
    }
    trn_train::count_word_units(carry.data(), carry.size(), &counts);
    for (const auto &m :
         trn_train::train_word_bpe(counts, WORD_MIN_COUNT, (int32_t)merges, word_progress)) {
        pairs->push_back(m[0]);
        pairs->push_back(m[1]);
    }
    return true;
}

/* Writes the tokenizer to out through out.tmp, checking the bytes written; 0 or fail's status. */
int write_tokenizer(const TrnBpe &bpe, const std::string &out)
{
    const std::string tmp = out + ".tmp";
    const uint64_t want = 8 + 8 * (uint64_t)bpe.n_merges;
    struct stat st;
    if (trn_bpe_save(&bpe, tmp.c_str()) != 1 || stat(tmp.c_str(), &st) != 0
        || (uint64_t)st.st_size != want) {
        unlink(tmp.c_str());
        return fail("cannot write " + tmp);
    }
    if (rename(tmp.c_str(), out.c_str()) != 0) {
        int e = errno;
        unlink(tmp.c_str());
        return fail("cannot move " + tmp + " to " + out + ": " + strerror(e));
    }
    return 0;
}

int run(int argc, char **argv)
{
    const bool words = argc == 5 && strcmp(argv[4], "--words") == 0;
    if (argc != 4 && !words) {
        fprintf(stderr, "train_bpe: usage: train_bpe CORPUS OUT MERGES [--words]\n");
        return 2;
    }
    const std::string corpus = argv[1], out = argv[2];
    errno = 0;
    char *end = nullptr;
    long merges = strtol(argv[3], &end, 10);
    if (errno != 0 || end == argv[3] || *end != '\0' || merges < 1 || merges > MAX_MERGES) {
        return fail(std::string("bad merge count '") + argv[3] + "' (expected 1 to 1048576)");
    }
    if (out.empty() || access(dir_of(out).c_str(), W_OK) != 0) {
        return fail("cannot write " + out + ": " + strerror(errno ? errno : ENOENT));
    }
    std::string text, err;
    if (words) {
        std::vector<uint32_t> pairs;
        if (!word_merges(corpus, merges, &pairs, &err)) {
            return fail(err);
        }
        const uint32_t n = (uint32_t)(pairs.size() / 2);
        fprintf(stderr, "train_bpe: training complete. %u merges, vocab_size=%u\n", n, n + 260);
        const TrnBpe bpe = {reinterpret_cast<uint32_t(*)[2]>(pairs.data()), n, n + 260, nullptr};
        return write_tokenizer(bpe, out);
    }
    if (!trn_train::read_bpe_sample(corpus, trn_train::BPE_SAMPLE_BYTES, &text, &err)) {
        return fail(err);
    }
    if (text.size() < 2) {
        return fail("corpus " + corpus + " holds fewer than 2 bytes");
    }
    TrnBpe *bpe = trn_bpe_train((const uint8_t *)text.data(), text.size(), (int32_t)merges);
    if (!bpe) {
        return fail("tokenizer training failed on " + corpus);
    }
    const int status = write_tokenizer(*bpe, out);
    trn_bpe_free(bpe);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc &) {
        fprintf(stderr, "train_bpe: out of memory\n");
        return 1;
    }
}
