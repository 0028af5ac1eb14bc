/*
** corpus.cpp -- the pair sampler of corpus.h.
*/
#include "corpus.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace trn_train
{

namespace
{

uint64_t uniform(std::mt19937_64 &rng, uint64_t lo, uint64_t hi) /* in [lo, hi] */
{
    if (hi <= lo) {
        return lo;
    }
    return lo + rng() % (hi - lo + 1);
}

bool is_space(char c)
{
    return c == ' ' || c == '\n' || c == '\t' || c == '\r' || c == '\f';
}

} // namespace

CorpusSampler::~CorpusSampler()
{
    if (fd_ >= 0) {
        close(fd_);
    }
}

bool CorpusSampler::open(const std::string &path, std::string *err)
{
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *err = "cannot open corpus " + path + ": " + strerror(errno);
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        *err = "corpus " + path + " is not a regular file";
        close(fd);
        return false;
    }
    char probe;
    if (st.st_size > 0 && pread(fd, &probe, 1, 0) != 1) {
        *err = "cannot read corpus " + path + ": " + strerror(errno);
        close(fd);
        return false;
    }
    fd_ = fd;
    size_ = (uint64_t)st.st_size;
    return true;
}

/* One chunk-sized window read at off (moved back when fewer than a chunk of bytes follow it), moved
** to the next blank line half of the time when to_break is set. */
bool CorpusSampler::read_window(uint64_t off, bool to_break, std::mt19937_64 &rng,
                                std::string &window, uint64_t *at, std::string *err)
{
    uint64_t want = size_ < (uint64_t)READ_BYTES ? size_ : (uint64_t)READ_BYTES;
    /* keep at least a chunk of text after the offset when the file allows it */
    uint64_t tail = size_ < (uint64_t)CHUNK_BYTES ? size_ : (uint64_t)CHUNK_BYTES;
    if (off + tail > size_) {
        off = size_ - tail;
    }
    if (off + want > size_) {
        want = size_ - off;
    }
    char buf[READ_BYTES];
    ssize_t got = pread(fd_, buf, want, (off_t)off);
    if (got < 0) {
        *err = std::string("cannot read corpus: ") + strerror(errno);
        return false;
    }
    for (ssize_t i = 0; i < got; i++) {
        if (buf[i] == '\0') {
            buf[i] = ' ';
        }
    }
    size_t start = 0;
    if (to_break && rng() % 2 == 0 && off > 0) {
        const char *brk = (const char *)memmem(buf, (size_t)got, "\n\n", 2);
        if (brk && (size_t)(got - (brk - buf)) > (size_t)VISIBLE_BYTES) {
            start = (size_t)(brk - buf);
            while (start < (size_t)got && buf[start] == '\n') {
                start++;
            }
        }
    }
    size_t len = (size_t)got - start;
    len = len > (size_t)CHUNK_BYTES ? (size_t)CHUNK_BYTES : len;
    window.assign(buf + start, len);
    *at = off + start;
    return true;
}

bool CorpusSampler::read_at(uint64_t off, char *buf, size_t len, std::string *err) const
{
    size_t done = 0;
    while (done < len) {
        ssize_t got = pread(fd_, buf + done, len - done, (off_t)(off + done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            *err = std::string("cannot read corpus: ")
                   + (got < 0 ? strerror(errno) : "the file shrank while reading");
            return false;
        }
        done += (size_t)got;
    }
    return true;
}

bool read_bpe_sample(const std::string &path, size_t max_bytes, std::string *out, std::string *err)
{
    CorpusSampler file;
    if (!file.open(path, err)) {
        return false;
    }
    const uint64_t size = file.size();
    out->clear();
    if (size <= max_bytes) {
        out->resize(size);
        return file.read_at(0, out->data(), size, err);
    }
    out->resize(max_bytes);
    const uint64_t blocks = BPE_SAMPLE_BLOCKS;
    for (uint64_t b = 0; b < blocks; b++) {
        uint64_t at = max_bytes * b / blocks;
        uint64_t len = max_bytes * (b + 1) / blocks - at;
        uint64_t off = (size - len) * b / (blocks - 1);
        if (!file.read_at(off, out->data() + at, len, err)) {
            return false;
        }
    }
    return true;
}

std::string query_span(const std::string &window, std::mt19937_64 &rng, size_t visible, size_t *at)
{
    const size_t len = window.size();
    if (at) {
        *at = 0;
    }
    if (len == 0) {
        return window;
    }
    const size_t region = len < visible ? len : visible;
    /* 3 to 24 words, short queries more often than sentence-long ones */
    double u = std::uniform_real_distribution<double>(0.0, 1.0)(rng);
    int words = 3 + (int)(21.0 * u * u);

    for (int attempt = 0; attempt < 4; attempt++) {
        size_t pos = (size_t)uniform(rng, 0, region - 1);
        /* move to the start of a word: back over the current word when inside one */
        while (pos > 0 && !is_space(window[pos - 1]) && !is_space(window[pos])) {
            pos--;
        }
        while (pos < len && is_space(window[pos])) {
            pos++;
        }
        if (pos >= region && attempt < 3) {
            continue; /* spaces led past the visible part */
        }
        size_t end = pos;
        int count = 0;
        while (end < len && count < words) {
            while (end < len && !is_space(window[end])) {
                end++;
            }
            count++;
            if (end + 1 < len && window[end] == '\n' && window[end + 1] == '\n') {
                break; /* a span stays within one paragraph */
            }
            while (end < len && is_space(window[end]) && count < words) {
                end++;
            }
        }
        if (end > pos + 8 || attempt == 3) {
            if (end <= pos) {
                return window.substr(0, len < 64 ? len : 64);
            }
            if (at) {
                *at = pos;
            }
            return window.substr(pos, end - pos);
        }
    }
    return window.substr(0, len < 64 ? len : 64);
}

bool CorpusSampler::draw(int pairs, std::mt19937_64 &rng, std::vector<std::string> &texts,
                         std::string *err)
{
    texts.resize((size_t)pairs * 2);
    std::string window;
    const uint64_t groups = (uint64_t)((pairs + NEIGHBOURS - 1) / NEIGHBOURS);
    uint64_t at = 0;
    for (int i = 0; i < pairs; i++) {
        const uint64_t g = (uint64_t)(i / NEIGHBOURS);
        const bool first = i % NEIGHBOURS == 0;
        uint64_t off = at + NEIGHBOUR_STEP;
        if (first) {
            uint64_t lo = size_ * g / groups, hi = size_ * (g + 1) / groups;
            off = uniform(rng, lo, hi > lo ? hi - 1 : lo);
        }
        if (!read_window(off, first, rng, window, &at, err)) {
            return false;
        }
        std::string &anchor = texts[(size_t)2 * i];
        std::string &positive = texts[(size_t)2 * i + 1];
        double u = std::uniform_real_distribution<double>(0.0, 1.0)(rng);
        if (u < QUERY_PAIR_SHARE) {
            size_t pos = 0;
            anchor = query_span(window, rng, visible_, &pos);
            positive = window;
            /* no draw without cloze pairs: the batches stay those of a run without them */
            if (cloze_ > 0.0 && std::uniform_real_distribution<double>(0.0, 1.0)(rng) < cloze_
                && anchor.size() + 64 <= window.size()) {
                positive.erase(pos, anchor.size());
            }
            continue;
        }
        const size_t len = window.size();
        const size_t min_crop = len < 64 ? len : 64;
        const size_t max_crop = len < visible_ ? len : visible_;
        size_t l1 = (size_t)uniform(rng, min_crop, max_crop);
        size_t l2 = (size_t)uniform(rng, min_crop, max_crop);
        size_t s1 = (size_t)uniform(rng, 0, len - l1);
        /* the second crop shares at least min(32, shorter crop) bytes with the first */
        size_t overlap = l1 < l2 ? l1 : l2;
        overlap = overlap < 32 ? overlap : 32;
        size_t s2_lo = s1 + overlap > l2 ? s1 + overlap - l2 : 0;
        size_t s2_hi = s1 + l1 - overlap;
        s2_hi = s2_hi + l2 > len ? len - l2 : s2_hi;
        size_t s2 = (size_t)uniform(rng, s2_lo, s2_hi < s2_lo ? s2_lo : s2_hi);
        anchor = window.substr(s1, l1);
        positive = window.substr(s2, l2);
    }
    return true;
}

bool PairFile::load(const std::string &path, std::string *err)
{
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) {
        *err = "cannot open pairs " + path + ": " + strerror(errno);
        return false;
    }
    std::string data;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        data.append(buf, n);
    }
    const bool failed = ferror(f) != 0;
    fclose(f);
    first_.clear();
    second_.clear();
    size_t at = 0;
    while (!failed) {
        const size_t end = data.find('\x1e', at);
        if (end == std::string::npos) {
            break;
        }
        const size_t sep = data.find('\x1f', at);
        if (sep != std::string::npos && sep < end) {
            first_.push_back(data.substr(at, sep - at));
            second_.push_back(data.substr(sep + 1, end - sep - 1));
        }
        at = end + 1;
    }
    if (failed || first_.empty()) {
        *err = "pairs " + path + (failed ? " cannot be read" : " holds no pair");
        return false;
    }
    return true;
}

void PairFile::mix_into(std::vector<std::string> &texts, double share, std::mt19937_64 &rng) const
{
    const size_t pairs = texts.size() / 2;
    const size_t mined = std::min(pairs, (size_t)std::llround(share * (double)pairs));
    for (size_t i = pairs - mined; i < pairs && !first_.empty(); i++) {
        const size_t k = (size_t)(rng() % first_.size());
        texts[2 * i] = first_[k];
        texts[2 * i + 1] = second_[k];
    }
}

} // namespace trn_train
