/*
** store_mapped_test.cpp -- a store read in place: every byte is still checked, the vectors when
** they are first read, and a handle keeps its snapshot while another process commits.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sys/wait.h>

namespace
{

/* CRC-32C a bit at a time, as its definition reads. */
uint32_t crc32c_bitwise(const uint8_t *p, size_t n)
{
    uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; i++) {
        crc ^= p[i];
        for (int k = 0; k < 8; k++) {
            crc = (crc >> 1) ^ (0x82F63B78u & (0u - (crc & 1)));
        }
    }
    return ~crc;
}

TEST(Checksum, Crc32cMatchesTheBitwiseDefinitionAtEveryLengthAndAlignment)
{
    EXPECT_EQ(crc32c_update(0, "123456789", 9), 0xE3069283u); /* the published check value */
    std::vector<uint8_t> bytes(2 * 3 * 4096 + 64);
    uint32_t x = 12345;
    for (uint8_t &b : bytes) {
        x = x * 1103515245u + 12345u;
        b = (uint8_t)(x >> 16);
    }
    for (size_t at = 0; at < 8; at++) {
        for (size_t n : {0,
                         1,
                         7,
                         8,
                         9,
                         63,
                         64,
                         65,
                         1000,
                         4096,
                         3 * 4096 - 1,
                         3 * 4096 + 9,
                         2 * 3 * 4096 + 33}) {
            EXPECT_EQ(crc32c_update(0, bytes.data() + at, n), crc32c_bitwise(bytes.data() + at, n))
                << at << " " << n;
        }
    }
    /* Continued over two parts, it is the checksum of the whole. */
    EXPECT_EQ(crc32c_update(crc32c_update(0, bytes.data(), 1001), bytes.data() + 1001, 2000),
              crc32c_bitwise(bytes.data(), 3001));
    EXPECT_EQ(crc32c_update(crc32c_update(0, bytes.data(), 5), bytes.data() + 5, 3 * 4096 + 3),
              crc32c_bitwise(bytes.data(), 3 * 4096 + 8));
}

class MappedStore : public testing::Test
{
protected:
    /* Two files, checkpointed: the log is empty, so an open reads the store alone. */
    void SetUp() override
    {
        TrnConfig cfg = config_for(dir_);
        TrnEngine *e = trn_open(&cfg);
        ASSERT_EQ(trn_ingest_text(e, "/d/one.txt", "harbour lights at night", 800, 200), 1);
        ASSERT_EQ(trn_ingest_text(e, "/d/two.txt", "a recipe for rye bread", 800, 200), 1);
        trn_close(e);
        store_ = read_file_bytes(dir_.file("tarnwick.bin"));
        ASSERT_EQ(file_size(dir_.file("tarnwick.wal")), 0);
    }

    TempDir dir_;
    std::vector<uint8_t> store_;
};

/* Each byte flipped in turn: the header and everything but the vectors are refused by the open;
** a vector is taken in place unread, and reading it reports the damage instead of its bytes. */
TEST_F(MappedStore, EveryByteIsCheckedAtOpenOrWhenItsVectorIsRead)
{
    uint64_t vector_offset;
    memcpy(&vector_offset, store_.data() + 72, 8);
    ASSERT_EQ(vector_offset % 4096, 0u);
    ASSERT_EQ(store_.size(), vector_offset + 2 * 512 * 4);
    int refused = 0, met = 0;
    for (size_t at = 0; at < store_.size(); at++) {
        std::vector<uint8_t> bytes = store_;
        bytes[at] ^= 0x10;
        write_file_bytes(dir_.file("tarnwick.bin"), bytes.data(), bytes.size());
        TrnEngine *e = bare_engine();
        bare_engine_on_dir(e, dir_.path());
        if (!index_load(e)) {
            EXPECT_LT(at, vector_offset);
            EXPECT_EQ(e->count, 0u);
            refused++;
        } else {
            EXPECT_GE(at, vector_offset);
            ASSERT_EQ(e->count, 2u);
            ASSERT_NE(e->vectors_checked, nullptr) << "the vectors are read in place";
            EXPECT_FALSE(vectors_damaged(e)) << "nothing was read yet";
            uint64_t slot = (at - vector_offset) / 2048;
            EXPECT_EQ(chunk_vector(e, 1 - slot)[0], e->vectors[(1 - slot) * 512]);
            EXPECT_FALSE(vectors_damaged(e)) << "the other vector is whole";
            const float *v = chunk_vector(e, slot);
            EXPECT_TRUE(vectors_damaged(e));
            EXPECT_EQ(v[(at - vector_offset) % 2048 / 4], 0.0f) << "never the damaged bytes";
            met++;
        }
        free_bare_engine(e);
    }
    EXPECT_EQ(refused, (int)vector_offset);
    EXPECT_EQ(met, 4096);
}

/* A header whose checksum holds is still refused when its graph parts disagree with their entry
** points; a store of version 5 has one part. */
TEST_F(MappedStore, GraphPartsOfTheHeaderAreChecked)
{
    struct Case {
        uint32_t version, parts;
        int32_t second_entry;
        bool loads;
    };
    const Case cases[] = {
        {6, 2, 1, true},  // as written: chunk 1 is the second part's entry point
        {6, 3, 1, false}, // more parts than there are
        {6, 0, 1, false}, // none
        {6, 1, 1, false}, // a second entry point with one part
        {6, 2, 0, false}, // the second part's entry point a chunk of the first
        {6, 2, 2, false}, // past the chunks
        {5, 0, 0, true},  // version 5: one part, and zero bytes where the second is now
        {5, 0, 1, true},  // version 5 does not read those bytes
    };
    const std::vector<uint8_t> commit = read_file_bytes(dir_.file("tarnwick.commit"));
    for (const Case &c : cases) {
        std::vector<uint8_t> bytes = store_;
        memcpy(bytes.data() + 4, &c.version, 4);
        memcpy(bytes.data() + 44, &c.parts, 4);
        memcpy(bytes.data() + 84, &c.second_entry, 4);
        const uint32_t head = crc32_update(0, bytes.data(), 92);
        memcpy(bytes.data() + 92, &head, 4);
        write_file_bytes(dir_.file("tarnwick.bin"), bytes.data(), bytes.size());
        /* The commit record names the store by its header's checksum. */
        std::vector<uint8_t> record = commit;
        memcpy(record.data() + 24, &head, 4);
        const uint32_t check = crc32_update(0, record.data(), 72);
        memcpy(record.data() + 72, &check, 4);
        write_file_bytes(dir_.file("tarnwick.commit"), record.data(), record.size());
        TrnEngine *e = bare_engine();
        bare_engine_on_dir(e, dir_.path());
        const std::string what = std::to_string(c.version) + " " + std::to_string(c.parts) + " "
                                 + std::to_string(c.second_entry);
        ASSERT_EQ(index_load(e), c.loads) << what;
        if (c.loads) {
            EXPECT_EQ(handle_invariant_violation(e), "") << what;
            EXPECT_EQ(e->graph_parts, c.version == 5 ? 1 : 2) << what;
            EXPECT_EQ(e->graph[1].entry_point, c.version == 5 ? -1 : 1) << what;
        }
        free_bare_engine(e);
    }
}

/* The search that reads a damaged vector returns nothing and says so; the handle then refuses to
** write, and nothing rewrites the store. */
TEST_F(MappedStore, DamagedVectorFailsTheSearchThatReadsItAndEveryWrite)
{
    std::vector<uint8_t> bytes = store_;
    bytes[bytes.size() - 100] ^= 0x01;
    write_file_bytes(dir_.file("tarnwick.bin"), bytes.data(), bytes.size());
    TrnConfig cfg = config_for(dir_);
    TrnEngine *e = trn_open(&cfg);
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(e->count, 2u);
    TrnResult results[4];
    EXPECT_EQ(trn_search_ex(e, "rye", TRN_SEARCH_KEYWORD, 4, 0, results), 1) << "no vector read";
    EXPECT_EQ(trn_search_ex(e, "rye bread", TRN_SEARCH_SEMANTIC_ALL, 4, 0, results), 0);
    EXPECT_EQ(trn_last_status(e), TRN_STATUS_DAMAGED);
    EXPECT_EQ(std::string(trn_last_error(e)),
              "the index of " + dir_.path() + " is damaged; rebuild it with tarnwick-cli index "
                  + dir_.path());
    EXPECT_EQ(trn_ingest_text(e, "/d/three.txt", "more text", 800, 200), -1);
    EXPECT_EQ(trn_checkpoint(e), 0);
    trn_close(e);
    EXPECT_EQ(read_file_bytes(dir_.file("tarnwick.bin")), bytes);
}

/* Another process's checkpoint renames a new store over the mapped one: the handle keeps reading
** its own snapshot until its next search, which reloads and finds the new file. */
TEST_F(MappedStore, HandleKeepsItsSnapshotWhenAnotherProcessCheckpoints)
{
    TrnConfig cfg = config_for(dir_);
    TrnEngine *e = trn_open(&cfg);
    ASSERT_NE(e->vectors_checked, nullptr);
    std::vector<float> first(chunk_vector(e, 0), chunk_vector(e, 0) + 512);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        TrnEngine *other = trn_open(&cfg);
        bool ok = trn_ingest_text(other, "/d/three.txt", "lighthouse keeper", 800, 200) == 1
                  && trn_checkpoint(other) == 1;
        trn_close(other);
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_NE(read_file_bytes(dir_.file("tarnwick.bin")), store_);
    EXPECT_EQ(std::vector<float>(e->vectors, e->vectors + 512), first) << "the old mapping stays";

    TrnResult results[4];
    EXPECT_EQ(trn_search_ex(e, "lighthouse", TRN_SEARCH_KEYWORD, 4, 0, results), 1);
    EXPECT_STREQ(results[0].file_path, "/d/three.txt");
    ASSERT_EQ(e->count, 3u);
    EXPECT_EQ(std::vector<float>(chunk_vector(e, 0), chunk_vector(e, 0) + 512), first);
    EXPECT_EQ(trn_search_ex(e, "lighthouse keeper", TRN_SEARCH_SEMANTIC_ALL, 4, 0, results), 3);
    EXPECT_EQ(trn_last_status(e), TRN_STATUS_OK);
    trn_close(e);
}

} // namespace
