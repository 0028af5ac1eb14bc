/*
** word_bpe.h -- tokenizer training over the words of a whole corpus.
**
** The engine's tokenizer training merges pairs over one byte sequence, one pass per merge, so it
** sees a 1 MB sample and learns about 8,000 merges in minutes; few words then become one token,
** and a word cut into pieces has no row of its own for related words to meet. This trainer
** splits the whole corpus into units once (a run of letters, of digits or of other marks, with
** the space before it; a run of white space), counts them, and learns merges over the distinct
*units
** weighted by their counts, updating the pair counts of the units each merge touches. The merges
** never join two units, so encoding, which replays them over the raw bytes with no splitting,
** gives a frequent word its own token.
*/
#ifndef TRN_TRAINERS_WORD_BPE_H
#define TRN_TRAINERS_WORD_BPE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace trn_train
{

using UnitCounts = std::unordered_map<std::string, int64_t>;

/* Adds the units of text to counts: a run of letters (ASCII letters and every byte of a
** multi-byte UTF-8 character), of digits or of other marks, each with the one space before it
** when there is one, and a run of white space (without its last space when something follows
** that space). Code's indentation and punctuation then take few tokens, so that a chunk's
** tokens still fit the encoder's positions. */
void count_word_units(const char *text, size_t n, UnitCounts *counts);

/* Learns at most max_merges merges over the units seen at least min_count times, each the most
** frequent adjacent pair of ids over all units weighted by their counts (ties go to the smaller
** left id, then the smaller right id). Ids 0-255 are bytes and merge k makes id 260 + k, as in
** the engine's tokenizer. Stops early when no pair occurs twice. progress, when given, is called
** every 1,000 merges with the merges done. */
std::vector<std::array<uint32_t, 2>> train_word_bpe(const UnitCounts &counts, int64_t min_count,
                                                    int32_t max_merges,
                                                    void (*progress)(int32_t done) = nullptr);

} // namespace trn_train

#endif /* TRN_TRAINERS_WORD_BPE_H */
