/*
** store_test.cpp -- the store file "tarnwick.bin": its byte layout, reopening, and loading of
** damaged or hostile files.
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <string>
#include <vector>

#include <sys/resource.h>
#include <sys/wait.h>

namespace
{

/* Puts a chunk into a handle directly, with a known vector and graph node. */
void put_chunk(TrnEngine *e, const StoreRecord &r)
{
    ensure_cap(e, e->count + 1);
    uint64_t slot = e->count++;
    TrnChunk *c = &e->chunks[slot];
    snprintf(c->doc_id, sizeof c->doc_id, "%s", r.id.c_str());
    c->text = xstrdup(r.text.c_str());
    c->file_path = r.path.empty() ? nullptr : xstrdup(r.path.c_str());
    c->chunk_index = r.chunk_index;
    c->line_number = r.line_number;
    c->file_type = r.file_type;
    c->deleted = r.deleted;
    e->deleted_count += r.deleted;
    for (int i = 0; i < e->dim; i++) {
        e->vectors[slot * e->dim + i] = r.fill + (float)i / 1024.0f;
    }
    TrnNode *n = &e->nodes[slot];
    n->level = r.level;
    for (size_t l = 0; l < r.neighbors.size(); l++) {
        n->count[l] = (int32_t)r.neighbors[l].size();
        n->capacity[l] = n->count[l];
        n->neighbors[l] = static_cast<uint32_t *>(xmalloc(4 * r.neighbors[l].size() + 4));
        for (size_t j = 0; j < r.neighbors[l].size(); j++) {
            n->neighbors[l][j] = r.neighbors[l][j];
        }
    }
}

std::vector<StoreRecord> sample_records()
{
    StoreRecord a;
    a.id = "/d/a.txt:0";
    a.text = "alpha beta";
    a.path = "/d/a.txt";
    a.level = 2;
    a.fill = 0.25f;
    a.neighbors = {{1, 2}, {2}, {}};
    StoreRecord b;
    b.id = "/d/b.md:3";
    b.text = "";
    b.path = "";
    b.chunk_index = 3;
    b.line_number = 7;
    b.file_type = 5;
    b.deleted = 1;
    b.fill = -1.5f;
    b.neighbors = {{0}};
    StoreRecord c;
    c.id = "/d/c.py:1";
    c.text = "gamma\nline";
    c.path = "/d/c.py";
    c.chunk_index = 1;
    c.line_number = 12;
    c.file_type = 3;
    c.level = 1;
    c.fill = 3.0f;
    c.neighbors = {{0, 1}, {0}};
    return {a, b, c};
}

/* Bytes of a store holding records, with the offset at which each record ends. */
Bytes store_bytes(const std::vector<StoreRecord> &records, std::vector<size_t> *ends = nullptr,
                  uint32_t version = 2, int32_t dim = 512, int32_t entry = 0, int32_t max_level = 2)
{
    Bytes b;
    put_store_header(b, version, dim, entry, max_level, (uint32_t)records.size());
    for (const StoreRecord &r : records) {
        put_store_record(b, r, dim);
        if (ends) {
            ends->push_back(b.size());
        }
    }
    return b;
}

/* The bytes of the version 5 layout for records (at most one chunk per file, whose centroid is
** then its own vector, compared apart), assembled independently of the writer. */
Bytes mapped_store_bytes(const std::vector<StoreRecord> &records, uint32_t files, size_t *centroids)
{
    auto u64 = [](Bytes &b, uint64_t v) {
        b.u32((uint32_t)v).u32((uint32_t)(v >> 32));
    };
    Bytes chunks, checks, counts, graph, names, strings, vectors;
    for (const StoreRecord &r : records) {
        chunks.u32((uint32_t)r.id.size()).u32((uint32_t)r.text.size()).u32((uint32_t)r.path.size());
        chunks.i32(r.chunk_index).i32(r.line_number).u32(r.file_type).i32(r.level);
        chunks.u8(r.deleted).u8(0).u8(0).u8(0);
        Bytes v;
        for (int i = 0; i < 512; i++) {
            v.f32(r.fill + (float)i / 1024.0f);
        }
        checks.u32(crc32c_update(0, v.b.data(), v.size()));
        vectors.raw(std::string(v.b.begin(), v.b.end()));
        for (const std::vector<uint32_t> &list : r.neighbors) {
            graph.u32((uint32_t)list.size());
            for (uint32_t n : list) {
                graph.u32(n);
            }
        }
        strings.raw(r.id).raw(r.text).u8(0).raw(r.path);
        if (!r.deleted && !r.path.empty()) {
            names.str(r.path);
            counts.u32(1);
        }
    }
    Bytes body = chunks;
    body.raw(std::string(checks.b.begin(), checks.b.end()));
    *centroids = 96 + body.size();
    body.raw(std::string((size_t)files * 2048, '\0'));
    for (const Bytes *part : {&counts, &graph, &names, &strings}) {
        body.raw(std::string(part->b.begin(), part->b.end()));
    }
    uint64_t vector_offset = (96 + body.size() + 4095) / 4096 * 4096;
    body.raw(std::string(vector_offset - 96 - body.size(), '\0'));
    Bytes out;
    put_store_header(out, 6, 512, 0, 2, (uint32_t)records.size());
    out.u32(files).u32(2); /* two parts, the second one empty (at 84) */
    u64(out, graph.size());
    u64(out, names.size());
    u64(out, strings.size());
    u64(out, vector_offset);
    out.u32(0).i32(-1).i32(-1).u32(0); /* checksums filled in by the caller */
    out.raw(std::string(body.b.begin(), body.b.end()));
    out.raw(std::string(vectors.b.begin(), vectors.b.end()));
    return out;
}

TEST(StoreFile, CheckpointWritesTheDocumentedLayout)
{
    TempDir dir;
    TrnEngine *e = bare_engine();
    bare_engine_on_dir(e, dir.path());
    /* The index's folder is the parent of its directory: a file below it is written as a NUL
    ** and the rest of its path, one elsewhere as it is. */
    const std::string folder = dir.path().substr(0, dir.path().rfind('/') + 1);
    std::vector<StoreRecord> records = sample_records();
    records[2].id = folder + "c.py:1";
    records[2].path = folder + "c.py";
    for (const StoreRecord &r : records) {
        put_chunk(e, r);
    }
    e->graph[0].entry_point = 0;
    e->graph[0].max_level = 2;

    ASSERT_EQ(trn_checkpoint(e), 1);
    std::vector<uint8_t> got = read_file_bytes(dir.file("tarnwick.bin"));
    records[2].id = std::string("\0c.py:1", 7);
    records[2].path = std::string("\0c.py", 5);
    size_t at = 0;
    Bytes want = mapped_store_bytes(records, 2, &at);
    ASSERT_EQ(got.size(), want.size());
    /* Each file's centroid is its one chunk's vector made unit length. */
    for (int f = 0; f < 2; f++) {
        const StoreRecord &r = records[f == 0 ? 0 : 2];
        double norm = 0.0;
        for (int i = 0; i < 512; i++) {
            norm += std::pow(r.fill + i / 1024.0, 2);
        }
        for (int i = 0; i < 512; i += 97) {
            float c;
            memcpy(&c, got.data() + at + (f * 512 + i) * 4, 4);
            EXPECT_NEAR(c, (r.fill + i / 1024.0) / std::sqrt(norm), 1e-6) << "file " << f;
        }
    }
    std::copy(got.begin() + (long)at, got.begin() + (long)at + 2 * 2048, want.b.begin() + (long)at);
    uint32_t body = crc32c_update(0, want.b.data() + 96, (size_t)got[72] + 256 * got[73] - 96);
    memcpy(want.b.data() + 80, &body, 4);
    uint32_t head = crc32_update(0, want.b.data(), 92);
    memcpy(want.b.data() + 92, &head, 4);
    EXPECT_TRUE(got == want.b);
    /* The commit record names the store by its header's checksum. */
    std::vector<uint8_t> commit = read_file_bytes(dir.file("tarnwick.commit"));
    ASSERT_EQ(commit.size(), 92u);
    EXPECT_EQ(memcmp(commit.data() + 24, &head, 4), 0);
    /* No temporary file is left behind; the commit record, the word index and the lock file
    ** stand beside it. */
    EXPECT_EQ(
        dir_names(dir.path()),
        (std::vector<std::string>{
            "tarnwick.bin", "tarnwick.commit", "tarnwick.lex", "tarnwick.lock", "tarnwick.turn"}));
    free_bare_engine(e);
}

TEST(StoreFile, LoadRestoresEveryFieldAndTheGraphExactly)
{
    TempDir dir;
    std::vector<StoreRecord> records = sample_records();
    store_bytes(records).write(dir.file("tarnwick.bin"));
    TrnEngine *e = bare_engine();
    store_load(e, dir.file("tarnwick.bin").c_str());

    ASSERT_EQ(e->count, 3u);
    EXPECT_EQ(handle_invariant_violation(e), "");
    EXPECT_EQ(e->deleted_count, 1u);
    EXPECT_EQ(e->graph[0].entry_point, 0);
    EXPECT_EQ(e->graph[0].max_level, 2);
    for (size_t i = 0; i < records.size(); i++) {
        const StoreRecord &r = records[i];
        const TrnChunk &c = e->chunks[i];
        EXPECT_STREQ(c.doc_id, r.id.c_str());
        EXPECT_STREQ(c.text, r.text.c_str());
        if (r.path.empty()) {
            EXPECT_EQ(c.file_path, nullptr);
        } else {
            EXPECT_STREQ(c.file_path, r.path.c_str());
        }
        EXPECT_EQ(c.chunk_index, r.chunk_index);
        EXPECT_EQ(c.line_number, r.line_number);
        EXPECT_EQ(c.file_type, r.file_type);
        EXPECT_EQ(c.deleted, r.deleted);
        EXPECT_EQ(e->vectors[i * 512 + 100], r.fill + 100.0f / 1024.0f);
        EXPECT_EQ(e->nodes[i].level, r.level);
        for (int l = 0; l <= r.level; l++) {
            std::vector<uint32_t> list(e->nodes[i].neighbors[l],
                                       e->nodes[i].neighbors[l] + e->nodes[i].count[l]);
            EXPECT_EQ(list, r.neighbors[l]) << "slot " << i << " level " << l;
        }
    }
    free_bare_engine(e);
}

TEST(StoreFile, CloseAndReopenGivesTheSameChunksAndAnEmptyLog)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    TrnEngine *e = trn_open(&cfg);
    ASSERT_EQ(trn_ingest_text(e, "/notes/a.txt", "first note\nsecond line", 800, 200), 1);
    ASSERT_EQ(trn_ingest_text(e, "/notes/b.md", "# heading\nbody", 800, 200), 1);
    ASSERT_GT(file_size(dir.file("tarnwick.wal")), 0);
    std::vector<float> vectors(e->vectors, e->vectors + 2 * 512);
    int32_t entry = e->graph[0].entry_point;
    std::vector<uint32_t> links(e->nodes[1].neighbors[0],
                                e->nodes[1].neighbors[0] + e->nodes[1].count[0]);
    trn_close(e);
    EXPECT_EQ(file_size(dir.file("tarnwick.wal")), 0);

    testing::internal::CaptureStderr();
    e = trn_open(&cfg);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("tarnwick: opened (2 docs, dim=512)"), std::string::npos) << log;
    /* The document index comes with the store: the open reads no vector to build it. */
    EXPECT_EQ(log.find("built doc index"), std::string::npos) << log;
    trn_close(e);
    // Front ends switch the informational lines off; the same open is then silent.
    trn_set_verbose(0);
    testing::internal::CaptureStderr();
    e = trn_open(&cfg);
    log = testing::internal::GetCapturedStderr();
    trn_set_verbose(1);
    EXPECT_EQ(log, "");
    ASSERT_EQ(e->count, 2u);
    EXPECT_STREQ(e->chunks[0].doc_id, "/notes/a.txt:0");
    EXPECT_STREQ(e->chunks[1].text, "# heading\nbody");
    EXPECT_EQ(e->chunks[1].file_type, (uint32_t)TRN_FILE_TYPE_MARKDOWN);
    EXPECT_EQ(memcmp(e->vectors, vectors.data(), vectors.size() * sizeof(float)), 0);
    EXPECT_EQ(e->graph[0].entry_point, entry);
    EXPECT_EQ(std::vector<uint32_t>(e->nodes[1].neighbors[0],
                                    e->nodes[1].neighbors[0] + e->nodes[1].count[0]),
              links);
    trn_close(e);
}

TEST(StoreFile, KilledSessionComesBackFromTheLogReembedded)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        TrnEngine *child = trn_open(&cfg);
        trn_ingest_text(child, "/k/x.txt", "logged but never checkpointed", 800, 200);
        _exit(0); /* no trn_close: only the log holds the chunk */
    }
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(file_size(dir.file("tarnwick.bin")), 96); /* the first write commits an empty store */

    TrnEngine *e = trn_open(&cfg);
    ASSERT_EQ(e->count, 1u);
    EXPECT_STREQ(e->chunks[0].doc_id, "/k/x.txt:0");
    EXPECT_STREQ(e->chunks[0].file_path, "/k/x.txt");
    TrnConfig mem = {};
    TrnEngine *fresh = trn_open(&mem);
    trn_ingest_text(fresh, "/k/x.txt", "logged but never checkpointed", 800, 200);
    EXPECT_EQ(memcmp(e->vectors, fresh->vectors, 512 * sizeof(float)), 0);
    trn_close(fresh);
    trn_close(e);
}

TEST(StoreFile, EmptyDirectoryOpensWithNoDocsAndWritesNothing)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    testing::internal::CaptureStderr();
    TrnEngine *e = trn_open(&cfg);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(log, "tarnwick: opened (0 docs, dim=512)\n");
    EXPECT_EQ(e->graph[0].entry_point, -1);
    trn_close(e);
    EXPECT_EQ(dir_names(dir.path()), (std::vector<std::string>{"tarnwick.lock", "tarnwick.turn"}));
}

TEST(StoreFile, InMemoryEngineCheckpointsToNothing)
{
    TrnConfig cfg = {};
    cfg.index_dir = "";
    TrnEngine *e = trn_open(&cfg);
    EXPECT_EQ(e->store_path[0], '\0');
    EXPECT_EQ(e->wal, nullptr);
    EXPECT_EQ(trn_checkpoint(e), 1);
    int major, minor, patch;
    EXPECT_EQ(sscanf(trn_version(), "%d.%d.%d", &major, &minor, &patch), 3) << trn_version();
    trn_close(e);
    trn_close(nullptr);
}

TEST(StoreFile, StoreOfAnotherVersionOrWidthIsIgnoredAndReplaced)
{
    for (int variant = 0; variant < 2; variant++) {
        TempDir dir;
        uint32_t version = variant == 0 ? 7 : 2;
        int32_t dim = variant == 0 ? 512 : 64;
        store_bytes(sample_records(), nullptr, version, dim).write(dir.file("tarnwick.bin"));
        TrnConfig cfg = config_for(dir);
        testing::internal::CaptureStderr();
        TrnEngine *e = trn_open(&cfg);
        std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(log, "tarnwick: opened (0 docs, dim=512)\n") << "variant " << variant;
        EXPECT_EQ(e->count, 0u);
        EXPECT_EQ(trn_checkpoint(e), 1);
        trn_close(e);
        std::vector<uint8_t> bytes = read_file_bytes(dir.file("tarnwick.bin"));
        ASSERT_EQ(bytes.size(), 96u);
        EXPECT_EQ(bytes[4], 6);
        EXPECT_EQ(bytes[36], 0);
    }
}

TEST(StoreFile, StoredWidthReplacesTheConfiguredOne)
{
    TempDir dir;
    store_bytes(sample_records()).write(dir.file("tarnwick.bin"));
    TrnConfig cfg = config_for(dir);
    cfg.dim = 64;
    cfg.M = 4;
    TrnEngine *e = trn_open(&cfg);
    EXPECT_EQ(e->dim, 512);
    EXPECT_EQ(e->M, 16); /* a store keeps the parameters it was built with */
    ASSERT_EQ(e->count, 3u);
    EXPECT_EQ(e->vectors[2 * 512 + 511], 3.0f + 511.0f / 1024.0f);
    /* A chunk added now lands in a 512-wide slot. */
    ASSERT_EQ(trn_ingest_text(e, "/d/new.txt", "more", 800, 200), 1);
    EXPECT_NEAR(vec_dot(e->vectors + 3 * 512, e->vectors + 3 * 512, 512), 1.0f, 1e-4f);
    trn_close(e);
}

TEST(StoreFile, LongIdKeeps255BytesAndLaterFieldsStayAligned)
{
    for (size_t length : {254, 255, 256, 300}) {
        TempDir dir;
        std::vector<StoreRecord> records = sample_records();
        records[0].id = std::string(length, 'q');
        store_bytes(records).write(dir.file("tarnwick.bin"));
        TrnEngine *e = bare_engine();
        store_load(e, dir.file("tarnwick.bin").c_str());
        ASSERT_EQ(e->count, 3u);
        EXPECT_EQ(std::string(e->chunks[0].doc_id),
                  std::string(std::min<size_t>(length, 255), 'q'));
        EXPECT_STREQ(e->chunks[0].text, "alpha beta");
        EXPECT_STREQ(e->chunks[2].doc_id, "/d/c.py:1");
        EXPECT_EQ(e->chunks[2].line_number, 12);
        EXPECT_EQ(e->vectors[2 * 512], 3.0f);
        free_bare_engine(e);
    }
}

TEST(StoreFile, EveryTruncationLoadsTheWholeRecordsBeforeTheCut)
{
    TempDir dir;
    std::vector<StoreRecord> records = sample_records();
    std::vector<size_t> ends;
    Bytes full = store_bytes(records, &ends);
    std::string path = dir.file("tarnwick.bin");
    full.write(path);
    for (size_t length = full.size() + 1; length-- > 0;) {
        ASSERT_EQ(truncate(path.c_str(), (off_t)length), 0);
        TrnEngine *e = bare_engine();
        store_load(e, path.c_str());
        uint64_t whole = 0;
        while (whole < ends.size() && ends[whole] <= length) {
            whole++;
        }
        ASSERT_EQ(e->count, whole) << "length " << length;
        ASSERT_EQ(handle_invariant_violation(e), "") << "length " << length;
        for (uint64_t i = 0; i < whole; i++) {
            ASSERT_STREQ(e->chunks[i].text, records[i].text.c_str()) << "length " << length;
        }
        free_bare_engine(e);
    }
}

TEST(StoreFile, HostileCountsAndLengthsEndTheLoadWithoutOverreach)
{
    TempDir dir;
    std::string path = dir.file("tarnwick.bin");
    std::vector<StoreRecord> records = sample_records();

    /* A count of four billion with one record: one slot, no giant allocation. */
    Bytes huge_count;
    put_store_header(huge_count, 1, 512, 0, 2, 0xFFFFFFFFu);
    put_store_record(huge_count, records[0]);
    huge_count.write(path);
    TrnEngine *e = bare_engine();
    store_load(e, path.c_str());
    EXPECT_EQ(e->count, 1u);
    EXPECT_LT(e->capacity, 1024u);
    EXPECT_EQ(handle_invariant_violation(e), "");
    free_bare_engine(e);

    /* The second record claims more text than the file holds; the first stays. */
    Bytes long_text;
    put_store_header(long_text, 1, 512, 0, 2, 2);
    put_store_record(long_text, records[0]);
    long_text.str("/d/b:0").u32(0x7FFFFFF0u).raw("short");
    long_text.write(path);
    e = bare_engine();
    store_load(e, path.c_str());
    EXPECT_EQ(e->count, 1u);
    EXPECT_EQ(handle_invariant_violation(e), "");
    free_bare_engine(e);

    /* A level above 31 ends the load; a neighbour count beyond the file does too. */
    for (int bad = 0; bad < 2; bad++) {
        std::vector<StoreRecord> rs = records;
        Bytes b;
        put_store_header(b, 1, 512, 0, 2, 3);
        put_store_record(b, rs[0]);
        if (bad == 0) {
            rs[1].level = 40;
            put_store_record(b, rs[1]);
        } else {
            rs[1].neighbors = {{0}};
            put_store_record(b, rs[1]);
            b.b.resize(b.b.size() - 8); /* replace level 0's count and index */
            b.u32(0x3FFFFFFFu).u32(0);
        }
        put_store_record(b, rs[2]);
        b.write(path);
        e = bare_engine();
        store_load(e, path.c_str());
        EXPECT_EQ(e->count, 1u) << "case " << bad;
        EXPECT_EQ(handle_invariant_violation(e), "") << "case " << bad;
        free_bare_engine(e);
    }
}

TEST(StoreFile, LinksAndEntryPointOutsideTheLoadedChunksAreRepaired)
{
    TempDir dir;
    std::string path = dir.file("tarnwick.bin");
    std::vector<StoreRecord> records = sample_records();
    records[0].neighbors = {{1, 77, 2}, {900}, {}};
    records[2].level = 3;
    records[2].neighbors = {{0}, {}, {}, {}};
    /* An entry point past the chunks, the first one past them included, names no chunk. */
    for (int32_t entry : {55, 3}) {
        store_bytes(records, nullptr, 1, 512, entry, /*max_level=*/9).write(path);
        TrnEngine *e = bare_engine();
        store_load(e, path.c_str());
        ASSERT_EQ(e->count, 3u);
        EXPECT_EQ(handle_invariant_violation(e), "");
        EXPECT_EQ(std::vector<uint32_t>(e->nodes[0].neighbors[0],
                                        e->nodes[0].neighbors[0] + e->nodes[0].count[0]),
                  (std::vector<uint32_t>{1, 2}));
        EXPECT_EQ(e->nodes[0].count[1], 0);
        /* The highest live node takes the place of an entry point that names no chunk. */
        EXPECT_EQ(e->graph[0].entry_point, 2) << entry;
        EXPECT_EQ(e->graph[0].max_level, 3);
        free_bare_engine(e);
    }
}

TEST(StoreFile, FailedCheckpointKeepsTheStoreAndTheLog)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    TrnEngine *e = trn_open(&cfg);
    std::string kept;
    for (int i = 0; i < 100; i++) {
        kept += "kept in the store ";
    }
    ASSERT_EQ(trn_ingest_text(e, "/c/a.txt", kept.c_str(), 800, 200), 3);
    ASSERT_EQ(trn_checkpoint(e), 1);
    ASSERT_EQ(trn_ingest_text(e, "/c/b.txt", "only in the log", 800, 200), 1);
    long wal_before = file_size(dir.file("tarnwick.wal"));
    std::vector<uint8_t> store_before = read_file_bytes(dir.file("tarnwick.bin"));
    ASSERT_GT(wal_before, 0);

    /* Files may not grow past 6000 bytes: the new store of four chunks (a vector is 2 kB)
    ** cannot be written, the log's append of a second one can. */
    signal(SIGXFSZ, SIG_IGN);
    struct rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    struct rlimit small = before;
    small.rlim_cur = 6000;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    EXPECT_EQ(trn_checkpoint(e), 0);
    EXPECT_EQ(trn_last_status(e), TRN_STATUS_IO_ERROR);
    EXPECT_EQ(std::string(trn_last_error(e)).rfind("cannot write the index of " + dir.path(), 0),
              0u)
        << trn_last_error(e);
    EXPECT_EQ(file_size(dir.file("tarnwick.wal")), wal_before);
    EXPECT_TRUE(read_file_bytes(dir.file("tarnwick.bin")) == store_before);
    EXPECT_EQ(dir_names(dir.path()).size(), 6u) << "a temporary file was left";
    /* Appending still works after the failure. */
    ASSERT_EQ(trn_ingest_text(e, "/c/c.txt", "still logged", 800, 200), 1);
    EXPECT_GT(file_size(dir.file("tarnwick.wal")), wal_before);

    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
    EXPECT_EQ(trn_checkpoint(e), 1);
    EXPECT_EQ(file_size(dir.file("tarnwick.wal")), 0);
    trn_close(e);
    e = trn_open(&cfg);
    EXPECT_EQ(e->count, 5u);
    trn_close(e);
}

} // namespace
