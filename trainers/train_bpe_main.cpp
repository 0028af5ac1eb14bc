/*
** train_bpe_main.cpp -- the tokenizer trainer program:
**   train_bpe CORPUS OUT MERGES
** Learns at most MERGES merges with the engine's tokenizer training from a sample of the corpus
** (read_bpe_sample in corpus.h: the whole corpus up to 1,000,000 bytes, else 64 evenly spaced
** blocks adding up to that) and writes the "TBPE" file to OUT through OUT.tmp. The progress
** lines are the tokenizer's own ("bpe: ..." on standard error). Exit status 0 on success, 2 for
** a wrong argument count, 1 after one "train_bpe: ..." line for anything else.
*/
#include "corpus.h"

#include "encoder/encoder.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

int run(int argc, char **argv)
{
    if (argc != 4) {
        fprintf(stderr, "train_bpe: usage: train_bpe CORPUS OUT MERGES\n");
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
    const std::string tmp = out + ".tmp";
    const uint64_t want = 8 + 8 * (uint64_t)bpe->n_merges;
    struct stat st;
    bool ok = trn_bpe_save(bpe, tmp.c_str()) == 1 && stat(tmp.c_str(), &st) == 0
              && (uint64_t)st.st_size == want;
    trn_bpe_free(bpe);
    if (!ok) {
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
