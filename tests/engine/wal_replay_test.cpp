/*
** wal_replay_test.cpp -- the write-ahead log "tarnwick.wal": the bytes appended per chunk, and
** replay of whole, torn, hostile and unknown records.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <sys/wait.h>
#include <zlib.h>

namespace
{

Bytes &add_record(Bytes &b, const std::string &id, const std::string &text, const std::string &path,
                  int32_t chunk_index, int32_t line, uint32_t type)
{
    return b.u8('A').str(id).str(text).str(path).i32(chunk_index).i32(line).u32(type);
}

/* The 'V' record of the chunk in slot of e, with the vector e holds. */
Bytes &add_vector(Bytes &b, const TrnEngine *e, uint64_t slot)
{
    const char *v = reinterpret_cast<const char *>(e->vectors + slot * (uint64_t)e->dim);
    return b.u8('V').str(e->chunks[slot].doc_id).str(std::string(v, (size_t)e->dim * 4));
}

class WalReplay : public testing::Test
{
protected:
    /* Building the encoder is the slow part of an open; every replay here borrows one. */
    static void SetUpTestSuite() { encoder_init(&encoder_, 42); }
    static void TearDownTestSuite() { encoder_release(&encoder_); }

    TrnEngine *replay(const std::string &path)
    {
        TrnEngine *e = bare_engine(&encoder_);
        wal_replay(e, path.c_str());
        return e;
    }
    void release(TrnEngine *e)
    {
        memset(&e->encoder, 0, sizeof e->encoder);
        free_bare_engine(e);
    }

    static TrnEncoder encoder_;
    TempDir dir_;
};

TrnEncoder WalReplay::encoder_;

/* Ends the group that began at offset start of b with its 'C' record. */
void end_group(Bytes &b, size_t start)
{
    char id[16];
    snprintf(id, sizeof id, "%08lx", crc32(0, b.b.data() + start, (uInt)(b.size() - start)));
    b.u8('C').str(id);
}

TEST_F(WalReplay, EachFileAndRemovalIsAppendedAsOneGroupBeforeTheCallReturns)
{
    TrnConfig cfg = config_for(dir_);
    TrnEngine *e = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(e, "/x/n.txt", "abc", 800, 200), 1);
    /* Read while the handle is still open: nothing may wait in a buffer. The first write
    ** commits generation 1, which the log names first. */
    Bytes want;
    std::string id = "1 ";
    for (uint8_t byte : e->index_id) {
        char hex[3];
        snprintf(hex, sizeof hex, "%02x", byte);
        id += hex;
    }
    want.u8('G').str(id);
    add_record(want, "/x/n.txt:0", "abc", "/x/n.txt", 0, 1, TRN_FILE_TYPE_TEXT);
    add_vector(want, e, 0);
    end_group(want, 0);
    EXPECT_TRUE(read_file_bytes(dir_.file("tarnwick.wal")) == want.b);

    /* 22 bytes, chunk 12, no overlap: the first window ends after the line feed. */
    ASSERT_EQ(trn_ingest_text(e, "/x/m.py", "0123456789\nabcdefghijk", 12, 0), 2);
    size_t start = want.size();
    add_record(want, "/x/m.py:0", "0123456789\n", "/x/m.py", 0, 1, TRN_FILE_TYPE_SOURCE);
    add_vector(want, e, 1);
    add_record(want, "/x/m.py:1", "abcdefghijk", "/x/m.py", 1, 2, TRN_FILE_TYPE_SOURCE);
    add_vector(want, e, 2);
    end_group(want, start);
    EXPECT_TRUE(read_file_bytes(dir_.file("tarnwick.wal")) == want.b);

    ASSERT_EQ(trn_remove_file(e, "/x/n.txt"), 1);
    start = want.size();
    want.u8('D').str("/x/n.txt");
    end_group(want, start);
    EXPECT_TRUE(read_file_bytes(dir_.file("tarnwick.wal")) == want.b);
    trn_close(e);

    /* The removal came back from the log and the close folded the log into the store. */
    e = trn_open(&cfg);
    EXPECT_EQ(trn_stats(e).deleted_count, 1u);
    EXPECT_EQ(file_size(dir_.file("tarnwick.wal")), 0);
    trn_close(e);
}

TEST_F(WalReplay, OnlyWholeGroupsAreReplayedAndAGroupFailingItsChecksumMidLogIsDamage)
{
    Bytes log;
    log.u8('G').str("0");
    add_record(log, "/g/a.txt:0", "first file", "/g/a.txt", 0, 1, 0);
    end_group(log, 0);
    size_t second = log.size();
    add_record(log, "/g/b.txt:0", "second file, part one", "/g/b.txt", 0, 1, 0);
    add_record(log, "/g/b.txt:1", "second file, part two", "/g/b.txt", 1, 1, 0);
    size_t unended = log.size();
    end_group(log, second);
    std::string path = dir_.file("tarnwick.wal");

    /* A file whose chunks were logged without the end of its group is left out. Groups follow
    ** a commit: here that of a first checkpoint that had not yet replaced the store. */
    write_file_bytes(path, log.b.data(), unended);
    TrnEngine *e = bare_engine(&encoder_);
    e->has_commit = 1;
    wal_replay(e, path.c_str());
    EXPECT_EQ(e->count, 1u);
    release(e);

    /* One flipped byte in the last group reads as a torn tail; in an earlier group, as damage. */
    for (size_t at : {unended - 3, second - 20}) {
        Bytes bad = log;
        bad.b[at] ^= 0x20;
        bad.write(path);
        e = bare_engine(&encoder_);
        e->has_commit = 1;
        bool whole = wal_replay(e, path.c_str());
        EXPECT_EQ(whole, at > second) << "byte " << at;
        EXPECT_EQ(e->count, at > second ? 1u : 0u) << "byte " << at;
        release(e);
    }
}

/* A chunk comes back pending (no vector, outside the graph) until a 'V' record names it: replay
** never embeds. A 'V' record names a pending chunk by its doc_id; one of the wrong width or
** naming no pending chunk changes nothing, and a log without groups (an older version's, which
** wrote no vectors) only adds. */
TEST_F(WalReplay, WholeRecordsComeBackWithEveryField)
{
    std::string unit(512 * 4, '\0');
    const float one = 1.0f;
    memcpy(&unit[4 * 7], &one, 4);
    for (bool grouped : {false, true}) {
        Bytes log;
        if (grouped) {
            log.u8('G').str("0");
        }
        add_record(log, "/r/a.txt:0", "first", "/r/a.txt", 0, 1, TRN_FILE_TYPE_TEXT);
        add_record(log, "orphan:4", "second", "", 4, 9, TRN_FILE_TYPE_HTML);
        log.u8('V').str("/r/a.txt:0").str(unit.substr(4));
        log.u8('V').str("/r/none.txt:0").str(unit);
        log.u8('V').str("orphan:4").str(unit);
        if (grouped) {
            end_group(log, 0);
        }
        std::string path = dir_.file("tarnwick.wal");
        log.write(path);

        TrnEngine *e = bare_engine(&encoder_);
        e->has_commit = grouped ? 1 : 0;
        wal_replay(e, path.c_str());
        ASSERT_EQ(e->count, 2u);
        EXPECT_EQ(handle_invariant_violation(e), "");
        EXPECT_STREQ(e->chunks[0].doc_id, "/r/a.txt:0");
        EXPECT_STREQ(e->chunks[0].text, "first");
        EXPECT_STREQ(e->chunks[0].file_path, "/r/a.txt");
        EXPECT_STREQ(e->chunks[1].doc_id, "orphan:4");
        EXPECT_EQ(e->chunks[1].file_path, nullptr);
        EXPECT_EQ(e->chunks[1].chunk_index, 4);
        EXPECT_EQ(e->chunks[1].line_number, 9);
        EXPECT_EQ(e->chunks[1].file_type, (uint32_t)TRN_FILE_TYPE_HTML);
        EXPECT_EQ(e->chunks[0].pending, 1);
        EXPECT_FLOAT_EQ(vec_dot(e->vectors, e->vectors, 512), 0.0f);
        EXPECT_EQ(e->chunks[1].pending, grouped ? 0 : 1);
        if (grouped) {
            EXPECT_EQ(memcmp(e->vectors + 512, unit.data(), unit.size()), 0);
        }
        EXPECT_EQ(e->unlinked_count, grouped ? 1u : 0u);
        link_replayed(e);
        EXPECT_EQ(e->graph[1].entry_point, grouped ? 1 : -1)
            << "a pending chunk is outside the graph";
        EXPECT_EQ(e->wal, nullptr);
        EXPECT_EQ(file_size(path), (long)log.size()); /* replay of a whole log changes nothing */
        release(e);
    }
}

TEST_F(WalReplay, TornLogAtEveryLengthKeepsTheWholeRecordsAndWritesNothing)
{
    Bytes log;
    add_record(log, "t:0", "a", "t", 0, 1, 0);
    size_t first_end = log.size();
    add_record(log, "t:1", "b", "", 1, 2, 0);
    std::string path = dir_.file("tarnwick.wal");
    for (size_t length = 0; length <= log.size(); length++) {
        write_file_bytes(path, log.b.data(), length);
        TrnEngine *e = replay(path);
        uint64_t whole = length == log.size() ? 2 : length >= first_end ? 1 : 0;
        ASSERT_EQ(e->count, whole) << "length " << length;
        EXPECT_EQ(file_size(path), (long)length) << "length " << length;
        if (whole >= 1) {
            EXPECT_STREQ(e->chunks[0].text, "a");
        }
        release(e);
    }
}

TEST_F(WalReplay, IdLongerThan4096EndsReplayButOneOf4096IsKept)
{
    Bytes log;
    add_record(log, std::string(4096, 'i'), "kept", "p", 0, 1, 0);
    log.u8('A').u32(5000).raw(std::string(5000, 'j'));
    log.str("lost").str("p").i32(1).i32(1).u32(0);
    add_record(log, "after:0", "also lost", "p", 0, 1, 0);
    std::string path = dir_.file("tarnwick.wal");
    log.write(path);
    TrnEngine *e = replay(path);
    ASSERT_EQ(e->count, 1u);
    EXPECT_EQ(std::string(e->chunks[0].doc_id), std::string(255, 'i'));
    EXPECT_STREQ(e->chunks[0].text, "kept");
    release(e);
}

TEST_F(WalReplay, LengthsBeyondTheBytesLeftEndReplayLikeATornTail)
{
    for (int field = 0; field < 3; field++) {
        Bytes log;
        add_record(log, "w:0", "whole", "w", 0, 1, 0);
        size_t whole_end = log.size();
        log.u8('A');
        if (field == 0) {
            log.u32(4000).raw("short id");
        } else if (field == 1) {
            log.str("w:1").u32(0xFFFFFFF0u).raw("text");
        } else {
            log.str("w:1").str("text").u32(0x80000000u).raw("p");
        }
        std::string path = dir_.file("tarnwick.wal");
        log.write(path);
        TrnEngine *e = replay(path);
        EXPECT_EQ(e->count, 1u) << "field " << field;
        EXPECT_EQ(e->wal_end, whole_end) << "field " << field;
        release(e);
    }
}

TEST_F(WalReplay, UnknownOpsAreSkippedAfterTheirId)
{
    Bytes log;
    log.u8('Z').str("ignored:0");
    add_record(log, "k:0", "kept one", "k", 0, 1, 0);
    log.u8('D').str("k:0"); /* not a removal: no op but 'A' means anything */
    add_record(log, "k:1", "kept two", "k", 1, 1, 0);
    std::string path = dir_.file("tarnwick.wal");
    log.write(path);
    TrnEngine *e = replay(path);
    ASSERT_EQ(e->count, 2u);
    EXPECT_STREQ(e->chunks[0].text, "kept one");
    EXPECT_STREQ(e->chunks[1].text, "kept two");
    EXPECT_EQ(e->deleted_count, 0u);
    EXPECT_EQ(file_size(path), (long)log.size());
    release(e);
}

TEST_F(WalReplay, RecordsAppendedAfterATornTailAreReplayedLater)
{
    Bytes log;
    add_record(log, "/s/a.txt:0", "before the crash", "/s/a.txt", 0, 1, 0);
    log.u8('A').u32(10).raw("/s/b."); /* torn inside the id */
    log.write(dir_.file("tarnwick.wal"));

    TrnConfig cfg = config_for(dir_);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        TrnEngine *child = trn_open(&cfg);
        int32_t n = trn_ingest_text(child, "/s/c.txt", "after the crash", 800, 200);
        _exit(n == 1 && child->count == 2 ? 0 : 3); /* killed before any checkpoint */
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);

    TrnEngine *e = trn_open(&cfg);
    ASSERT_EQ(e->count, 2u);
    EXPECT_STREQ(e->chunks[0].text, "before the crash");
    EXPECT_STREQ(e->chunks[1].text, "after the crash");
    trn_close(e);
}

/* A command whose checkpoint failed cuts what it logged back off, so later opens need not embed
** it again; groups of another handle after its own are never cut, and a cut handle reads the
** state without its groups. */
TEST_F(WalReplay, RollbackCutsOnlyTheHandlesOwnGroupsAtTheLogsEnd)
{
    TrnConfig cfg = config_for(dir_);
    TrnEngine *a = trn_open(&cfg);
    TrnEngine *b = trn_open(&cfg);
    /* What is committed, read without the checkpoint a closing handle would make. */
    auto files = [this] {
        TrnEngine *e = bare_engine(&encoder_);
        bare_engine_on_dir(e, dir_.path());
        std::string names = index_load(e) ? "" : "damaged";
        for (uint64_t i = 0; i < e->count; i++) {
            names += e->chunks[i].deleted ? "" : std::string(e->chunks[i].file_path) + " ";
        }
        release(e);
        return names;
    };
    ASSERT_EQ(trn_ingest_text(a, "/r/a1", "first of a", 800, 200), 1);
    ASSERT_EQ(trn_checkpoint(a), 1);
    EXPECT_EQ(trn_rollback(a), 0); /* folded into the store: nothing to cut */
    ASSERT_EQ(trn_ingest_text(a, "/r/a2", "second of a", 800, 200), 1);
    ASSERT_EQ(trn_ingest_text(b, "/r/b1", "first of b", 800, 200), 1);
    EXPECT_EQ(trn_rollback(a), 0);
    EXPECT_EQ(files(), "/r/a1 /r/a2 /r/b1 ");
    EXPECT_EQ(trn_rollback(b), 1);
    EXPECT_EQ(b->count, 2u);
    EXPECT_EQ(files(), "/r/a1 /r/a2 ");
    ASSERT_EQ(trn_ingest_text(a, "/r/a3", "third of a", 800, 200), 1);
    ASSERT_EQ(trn_remove_file(a, "/r/a1"), 1);
    EXPECT_EQ(trn_rollback(a), 1);
    EXPECT_EQ(files(), "/r/a1 /r/a2 ");
    trn_close(a);
    trn_close(b);
    EXPECT_EQ(files(), "/r/a1 /r/a2 ");
}

} // namespace
