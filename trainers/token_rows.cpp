/*
** token_rows.cpp -- what the trainer reads off the tokenizer and the corpus before a step: token
** ids, the word each token spells, how rare each word is, and the bag-of-words starting rows.
*/
#include "training.h"

#include "corpus.h"
#include "index/words.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <unordered_map>

namespace trn_train
{

void tokenize(const TrnBpe *bpe, const std::string &text, std::vector<uint32_t> &ids)
{
    ids.resize(MAX_SEQ);
    if (bpe) {
        int32_t n = trn_bpe_encode(bpe, text.c_str(), ids.data(), MAX_SEQ);
        ids.resize(n > 0 ? (size_t)n : 0);
        return;
    }
    size_t n = strnlen(text.c_str(), (size_t)MAX_SEQ - 2);
    ids[0] = TRN_TOKEN_BEGIN;
    for (size_t i = 0; i < n; i++) {
        ids[i + 1] = (unsigned char)text[i];
    }
    ids[n + 1] = TRN_TOKEN_END;
    ids.resize(n + 2);
}

namespace
{

/* The bytes each token id below vocab stands for ("" for the special ids). */
std::vector<std::string> token_spellings(const TrnBpe *bpe, uint32_t vocab)
{
    std::vector<std::string> spelling(vocab);
    for (uint32_t t = 0; t < vocab && t < 256; t++) {
        spelling[t] = std::string(1, (char)t);
    }
    for (uint32_t i = 0; bpe && i < bpe->n_merges && 260 + i < vocab; i++) {
        const uint32_t l = bpe->merges[i][0], r = bpe->merges[i][1];
        if (l < 260 + i && r < 260 + i) {
            spelling[260 + i] = spelling[l] + spelling[r];
        }
    }
    return spelling;
}

/* A token's spelling as a word: white space at either end dropped, ASCII letters lower-cased. */
std::string word_key(const std::string &spelling)
{
    const size_t a = spelling.find_first_not_of(" \t\n\r\f\v");
    if (a == std::string::npos) {
        return "";
    }
    std::string key = spelling.substr(a, spelling.find_last_not_of(" \t\n\r\f\v") + 1 - a);
    for (char &c : key) {
        c = (char)std::tolower((unsigned char)c);
    }
    return key;
}

} // namespace

std::vector<uint32_t> token_stems(const TrnBpe *bpe, uint32_t vocab)
{
    const std::vector<std::string> spelling = token_spellings(bpe, vocab);
    std::vector<uint32_t> stem(vocab, NO_WORD);
    std::unordered_map<std::string, uint32_t> first;
    for (uint32_t t = 0; t < vocab; t++) {
        const std::string key = word_key(spelling[t]);
        if (key.size() < 3 || !std::all_of(key.begin(), key.end(), [](unsigned char c) {
                return std::isalpha(c) != 0;
            })) {
            continue;
        }
        stem[t] = first.emplace(word_stem(key), t).first->second;
    }
    return stem;
}

std::vector<uint32_t> token_words(const TrnBpe *bpe, uint32_t vocab)
{
    const std::vector<std::string> spelling = token_spellings(bpe, vocab);
    std::vector<uint32_t> word(vocab, NO_WORD);
    std::unordered_map<std::string, uint32_t> first;
    for (uint32_t t = 0; t < vocab; t++) {
        const std::string &s = spelling[t];
        if (std::none_of(s.begin(), s.end(), [](unsigned char c) {
                return std::isalnum(c) || c >= 0x80;
            })) {
            continue;
        }
        word[t] = first.emplace(word_key(s), t).first->second;
    }
    return word;
}

bool token_rarity(const CorpusSampler &sampler, const TrnBpe *bpe,
                  const std::vector<uint32_t> &word, int windows, std::mt19937_64 &rng,
                  std::vector<float> *rarity, std::string *err)
{
    const uint32_t vocab = (uint32_t)word.size();
    const uint64_t size = sampler.size();
    const size_t len = (size_t)std::min<uint64_t>(size, CHUNK_BYTES);
    std::vector<uint32_t> held(vocab, 0), last(vocab, 0), ids;
    std::string window(len, ' ');
    for (int w = 1; w <= windows; w++) {
        const uint64_t off = size > len ? rng() % (size - len + 1) : 0;
        if (!sampler.read_at(off, window.data(), len, err)) {
            return false;
        }
        std::replace(window.begin(), window.end(), '\0', ' ');
        tokenize(bpe, window, ids);
        for (uint32_t id : ids) {
            const uint32_t g = id < vocab ? word[id] : NO_WORD;
            if (g != NO_WORD && last[g] != (uint32_t)w) {
                last[g] = (uint32_t)w;
                held[g]++;
            }
        }
    }
    const double top = std::log(windows + 1.0);
    rarity->assign(vocab, 0.0f);
    for (uint32_t t = 0; t < vocab; t++) {
        if (word[t] != NO_WORD) {
            (*rarity)[t] = (float)(std::log((windows + 1.0) / (held[word[t]] + 1.0)) / top);
        }
    }
    return true;
}

void bag_of_tokens(TrnEncoder *enc, const std::vector<float> &weight,
                   const std::vector<uint32_t> &word, const std::vector<float> &usage, double share)
{
    constexpr int LIVE = DIM - IDF_SPARE_DIMS;
    const bool mixed = share > 0 && usage.size() >= (size_t)enc->vocab_size * LIVE;
    const double own_part = std::sqrt(1.0 - std::clamp(share, 0.0, 1.0));
    const double usage_part = std::sqrt(std::clamp(share, 0.0, 1.0) * LIVE);
    /* centred and scaled to unit variance over the live components */
    auto standardise = [](std::vector<double> &x) {
        double mean = 0, sq = 0;
        for (double v : x) {
            mean += v;
        }
        mean /= (double)x.size();
        for (double v : x) {
            sq += (v - mean) * (v - mean);
        }
        const double sd = std::sqrt(sq / (double)x.size());
        for (double &v : x) {
            v = sd > 0 ? (v - mean) / sd : 0.0;
        }
    };
    /* a word's tokens all take the random row of its first token */
    std::vector<float> dir((size_t)enc->vocab_size * LIVE);
    std::vector<double> mix(LIVE);
    for (uint32_t t = 0; t < enc->vocab_size; t++) {
        const uint32_t from = t < word.size() && word[t] < enc->vocab_size ? word[t] : t;
        const float *row = enc->tok_emb + (size_t)from * DIM + IDF_SPARE_DIMS;
        std::copy_n(row, LIVE, mix.begin());
        standardise(mix);
        const float *used = mixed ? &usage[(size_t)t * LIVE] : nullptr;
        if (used && std::any_of(used, used + LIVE, [](float x) {
                return x != 0.0f;
            })) {
            for (int d = 0; d < LIVE; d++) {
                mix[d] = own_part * mix[d] + usage_part * used[d];
            }
            standardise(mix);
        }
        std::copy_n(mix.begin(), LIVE, &dir[(size_t)t * LIVE]);
    }
    for (uint32_t t = 0; t < enc->vocab_size; t++) {
        float *row = enc->tok_emb + (size_t)t * DIM;
        double w = t < weight.size() ? std::clamp((double)weight[t], 0.0, 1.0) : 0.0;
        if (t == TRN_TOKEN_BEGIN || t == TRN_TOKEN_END) {
            w = 0.0;
        }
        for (int d = 0; d < LIVE; d++) {
            row[IDF_SPARE_DIMS + d] = (float)(w * dir[(size_t)t * LIVE + d]);
        }
        /* the rest of a unit variance, in alternating signs so the row's mean stays 0 */
        const double c = std::sqrt((DIM - LIVE * w * w) / IDF_SPARE_DIMS);
        for (int d = 0; d < IDF_SPARE_DIMS; d++) {
            row[d] = (float)(d % 2 ? -c : c);
        }
    }
    std::fill_n(enc->pos_emb, (size_t)MAX_SEQ * DIM, 0.0f);
    std::fill_n(enc->ln_f_gamma, IDF_SPARE_DIMS, 0.0f);
    for (TrnEncoderLayer &layer : enc->layers) {
        std::fill_n(layer.wo, (size_t)DIM * DIM, 0.0f);
        std::fill_n(layer.w2, (size_t)FF * DIM, 0.0f);
        std::fill_n(layer.b2, (size_t)DIM, 0.0f);
    }
}

} // namespace trn_train
