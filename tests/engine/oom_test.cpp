/*
** oom_test.cpp -- a failed allocation anywhere in the store, ingestion and document index ends
** the process with status 1 and the one line "tarnwick: OOM".
*/
#include "store_fixtures.h"

#include <gtest/gtest.h>

#include <string>

namespace
{

class OutOfMemory : public testing::Test
{
protected:
    /* The encoder may start BLAS threads; a re-executed child keeps the death tests sound. */
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(OutOfMemory, EveryEarlyAllocationOfAnOpenEndsTheProcess)
{
    TempDir dir;
    TrnConfig cfg = config_for(dir);
    for (long n : {1L, 2L, 3L, 4L, 6L, 9L}) {
        EXPECT_EXIT(
            {
                g_alloc_fail_countdown = n;
                TrnEngine *e = trn_open(&cfg);
                for (;;) { /* the countdown ends this loop at the latest */
                    trn_ingest_text(e, "/o/a.txt", "some words", 800, 200);
                }
            },
            testing::ExitedWithCode(1),
            "tarnwick: OOM")
            << "allocation " << n;
    }
}

TEST_F(OutOfMemory, IngestionAndMaintenanceEndTheProcess)
{
    /* The child runs the test again up to the statement, so earlier lines precede the last. */
    TrnConfig cfg = {};
    TrnEngine *e = trn_open(&cfg);
    trn_ingest_text(e, "/o/a.txt", "first file", 800, 200);
    trn_ingest_text(e, "/o/b.txt", "second file", 800, 200);
    trn_remove_file(e, "/o/a.txt");
    EXPECT_EXIT(
        {
            g_alloc_fail_countdown = 1;
            trn_ingest_text(e, "/o/c.txt", "third", 800, 200);
        },
        testing::ExitedWithCode(1),
        "tarnwick: OOM\n$");
    EXPECT_EXIT(
        {
            g_alloc_fail_countdown = 2;
            trn_compact(e);
        },
        testing::ExitedWithCode(1),
        "tarnwick: OOM\n$");
    EXPECT_EXIT(
        {
            g_alloc_fail_countdown = 1;
            trn_build_doc_index(e);
        },
        testing::ExitedWithCode(1),
        "tarnwick: OOM\n$");
    EXPECT_EXIT(
        {
            g_alloc_fail_countdown = 1;
            trn_list_dir_files(e, "/");
        },
        testing::ExitedWithCode(1),
        "tarnwick: OOM\n$");
    trn_close(e);
}

TEST_F(OutOfMemory, StoreLoadAndOverflowingSizesEndTheProcess)
{
    TempDir dir;
    Bytes store;
    put_store_header(store, 1, 512, 0, 0, 1);
    StoreRecord r;
    r.id = "/o/x.txt:0";
    r.text = "text";
    r.path = "/o/x.txt";
    put_store_record(store, r);
    store.write(dir.file("tarnwick.bin"));
    EXPECT_EXIT(
        {
            TrnEngine *e = bare_engine();
            g_alloc_fail_countdown = 1;
            store_load(e, dir.file("tarnwick.bin").c_str());
        },
        testing::ExitedWithCode(1),
        "^tarnwick: OOM\n$");
    /* capacity x dim x 4 bytes cannot be represented: refused before any allocation. */
    EXPECT_EXIT(
        {
            TrnEngine *e = bare_engine();
            ensure_cap(e, 1ull << 61);
        },
        testing::ExitedWithCode(1),
        "^tarnwick: OOM\n$");
}

} // namespace
