// Embedding on several threads: per-encoder scratch lets handles embed at once, and ingestion or
// an update (files read ahead on helpers) on any number of workers writes the same vectors, graph
// and store as one worker.
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace
{

// Twelve 100-byte chunks, each different.
std::string twelve_chunks()
{
    std::string text;
    for (int i = 0; i < 12; i++) {
        text += "chunk " + std::to_string(i) + ' ' + std::string(91, (char)('a' + i)) + '\n';
    }
    return text;
}

TrnEngine *open_with_workers(const std::string &dir, int32_t workers)
{
    TrnConfig cfg = {dir.c_str(), nullptr, 0, 0, 0, 0};
    TrnEngine *e = trn_open(&cfg);
    e->embed_threads = workers;
    return e;
}

} // namespace

TEST(EmbedThreads, AnyWorkerCountWritesTheSameVectorsGraphAndStoreAsOne)
{
    trn_set_verbose(0);
    const std::string text = twelve_chunks();
    TempDir one_dir;
    TrnEngine *one = open_with_workers(one_dir.path(), 1);
    ASSERT_GT(trn_ingest_text(one, "/d/a.txt", text.c_str(), 100, 0), 11);
    ASSERT_EQ(trn_checkpoint(one), 1);
    const std::vector<uint8_t> one_store = read_file_bytes(one_dir.file("tarnwick.bin"));
    for (int32_t workers : {3, 8}) {
        TempDir dir;
        TrnEngine *many = open_with_workers(dir.path(), workers);
        ASSERT_EQ(trn_ingest_text(many, "/d/a.txt", text.c_str(), 100, 0), (int32_t)one->count);
        EXPECT_EQ(memcmp(many->vectors, one->vectors, one->count * 512 * sizeof(float)), 0)
            << workers << " workers";
        for (uint64_t i = 0; i < one->count; i++) {
            EXPECT_EQ(many->nodes[i].level, one->nodes[i].level) << "chunk " << i;
        }
        ASSERT_EQ(trn_checkpoint(many), 1);
        EXPECT_EQ(read_file_bytes(dir.file("tarnwick.bin")), one_store) << workers << " workers";
        trn_close(many);
    }
    trn_close(one);
}

TEST(EmbedThreads, FilesReadAheadAreCommittedInWalkOrderAsByOneWorker)
{
    // 40 files, several batches of reading ahead, with one that cannot be read as its type says
    // and one too short to index among them. The words phase alone: the meaning phase is stopped.
    trn_set_verbose(0);
    auto words_only = [](const char *, int32_t, int32_t, void *e) {
        return trn_meaning_progress(static_cast<TrnEngine *>(e), nullptr, nullptr) != 1;
    };
    TempDir src;
    for (int i = 0; i < 40; i++) {
        char name[32];
        snprintf(name, sizeof name, "/f%02d.txt", i);
        write_file_text(src.path() + name, twelve_chunks() + std::string(i * 37, 'a' + i % 26));
    }
    write_file_text(src.path() + "/f07.docx", "not a zip archive at all");
    write_file_text(src.path() + "/f11.txt", "x");
    std::vector<uint8_t> want_store;
    TrnUpdateReport want = {};
    for (int32_t workers : {1, 2, 3}) {
        TempDir dir;
        TrnEngine *e = open_with_workers(dir.path(), workers);
        TrnUpdateReport r = {};
        ASSERT_GT(trn_update_dir(e, src.path().c_str(), 300, 50, nullptr, words_only, e, &r), 0);
        ASSERT_EQ(trn_checkpoint(e), 1);
        trn_close(e);
        if (workers == 1) {
            want_store = read_file_bytes(dir.file("tarnwick.bin"));
            want = r;
            EXPECT_EQ(r.failed, 1);
            continue;
        }
        EXPECT_EQ(read_file_bytes(dir.file("tarnwick.bin")), want_store) << workers << " workers";
        EXPECT_EQ(memcmp(&r, &want, sizeof r), 0) << workers << " workers";
    }
}

TEST(EmbedThreads, ChunksEmbeddedSeveralToAPassGetTheBitsOfOneAtATime)
{
    // Nine chunks of 2 to 256 positions of a random transformer: one worker takes passes of 4, 4
    // and 1 chunks, two workers passes of fewer towards the end.
    trn_set_verbose(0);
    TempDir dir;
    TrnEngine *e = open_with_workers(dir.path(), 1);
    std::vector<std::string> texts = {"", "x", "a short chunk", std::string(300, 'c')};
    for (int i = 0; i < 5; i++) {
        texts.push_back("chunk " + std::to_string(i) + std::string(40 * i, (char)('a' + i)));
    }
    std::vector<const char *> ptrs;
    std::vector<float> want(texts.size() * 512);
    for (size_t i = 0; i < texts.size(); i++) {
        ptrs.push_back(texts[i].c_str());
        embed_chunk(e, ptrs[i], want.data() + i * 512);
    }
    for (int32_t workers : {1, 2}) {
        e->embed_threads = workers;
        std::vector<float> got(want.size());
        embed_chunks(e, ptrs.data(), ptrs.size(), got.data());
        for (size_t i = 0; i < texts.size(); i++) {
            EXPECT_EQ(memcmp(got.data() + i * 512, want.data() + i * 512, 512 * sizeof(float)), 0)
                << "chunk " << i << ", " << workers << " workers";
        }
    }
    trn_close(e);
}

TEST(EmbedThreads, HandlesEmbeddingAtOnceMatchThemEmbeddingInTurn)
{
    // Two encoders of one weights on two threads: a scratch shared between them would mix their
    // activations.
    TrnEncoder a, b;
    encoder_init(&a, 42);
    encoder_init(&b, 42);
    const std::string long_text(120, 'x');
    std::vector<float> want_a(512), want_b(512);
    trn_encoder_embed_text(&a, long_text.c_str(), want_a.data());
    trn_encoder_embed_text(&b, "short", want_b.data());
    for (int round = 0; round < 4; round++) {
        std::vector<float> got_a(512), got_b(512);
        std::thread other([&b, &got_b] {
            trn_encoder_embed_text(&b, "short", got_b.data());
        });
        trn_encoder_embed_text(&a, long_text.c_str(), got_a.data());
        other.join();
        ASSERT_EQ(got_a, want_a) << "round " << round;
        ASSERT_EQ(got_b, want_b) << "round " << round;
    }
    encoder_release(&a);
    encoder_release(&b);
}
