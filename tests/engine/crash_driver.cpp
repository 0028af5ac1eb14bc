/*
** crash_driver.cpp -- one write of the engine per process, for the tests that stop a process at
** each of its system calls (crash_syscall_test.cpp runs it under strace with a fault injected).
**
**     trn_crash_driver DIR setup        the starting index: a.txt, b.txt in the store, c.txt
**                                       and a removal of a.txt in the log
**     trn_crash_driver DIR OPERATION    one of ingest, remove, compact, checkpoint, rebuild
**     trn_crash_driver DIR ingest NAME  ingests a small text as /s/NAME
**     trn_crash_driver DIR state        prints the index: one line per live chunk, sorted
**     trn_crash_driver DIR check        prints the index, ingests e.txt, prints it again
**     trn_crash_driver DIR update SRC   trn_update_dir of SRC; prints what it did
**
** Exit status: 0 done; 3 the operation reported a failure (its line on standard error); 4 the
** index could not be opened (busy or damaged; its line on standard output as "refused ...").
*/
#include "tarnwick.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace
{

int ingest(TrnEngine *e, const char *path, const char *text)
{
    return trn_ingest_text(e, path, text, 24, 4) > 0 ? 0 : 3;
}

// Every live chunk as "doc_id text", sorted; a duplicated chunk shows as two equal lines.
int print_state(TrnEngine *e)
{
    std::vector<std::string> lines;
    // An empty needle matches every chunk, in chunk order.
    TrnResult results[64];
    int32_t n = trn_search(e, "", TRN_SEARCH_TEXT, 64, results);
    for (int32_t i = 0; i < n; i++) {
        lines.push_back(std::string(results[i].doc_id) + " " + results[i].snippet);
    }
    std::sort(lines.begin(), lines.end());
    for (const std::string &line : lines) {
        std::printf("%s\n", line.c_str());
    }
    TrnStats st = trn_stats(e);
    /* Slots tell a compacted index (no deleted chunks left) from one that was not. */
    std::printf("live %u of %u slots\n", st.chunk_count - st.deleted_count, st.chunk_count);
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3
        && !(argc == 4
             && (std::strcmp(argv[2], "ingest") == 0 || std::strcmp(argv[2], "update") == 0))) {
        std::fprintf(stderr,
                     "usage: trn_crash_driver DIR setup|ingest|remove|compact|"
                     "checkpoint|rebuild|state\n");
        return 2;
    }
    const std::string op = argv[2];
    TrnConfig cfg = {};
    cfg.index_dir = argv[1];
    int32_t status = 0;
    TrnEngine *e = trn_open_ex(&cfg, op == "rebuild" ? TRN_OPEN_REBUILD : 0, &status);
    if (!e) {
        std::printf("refused %d %s\n", status, trn_last_error(nullptr));
        return 4;
    }
    int rc = 0;
    if (op == "setup") {
        rc = ingest(e, "/s/a.txt", "alpha one, alpha two, alpha three");
        rc = rc ? rc : ingest(e, "/s/b.txt", "bravo one, bravo two");
        rc = rc ? rc : (trn_checkpoint(e) ? 0 : 3);
        rc = rc ? rc : ingest(e, "/s/c.txt", "charlie one");
        rc = rc ? rc : (trn_remove_file(e, "/s/a.txt") > 0 ? 0 : 3);
        return rc; /* no close: the log keeps the last two, as after a crash */
    } else if (op == "ingest" && argc == 4) {
        std::string path = std::string("/s/") + argv[3];
        rc = ingest(e, path.c_str(), (std::string(argv[3]) + " one, two, three").c_str());
    } else if (op == "update") {
        TrnUpdateReport r;
        rc = trn_update_dir(e, argv[3], 24, 4, nullptr, nullptr, nullptr, &r) >= 0 ? 0 : 3;
        std::printf("added %d changed %d removed %d\n", r.added, r.changed, r.removed);
    } else if (op == "ingest") {
        rc = ingest(e, "/s/d.txt", "delta one, delta two, delta three, delta four");
    } else if (op == "remove") {
        rc = trn_remove_file(e, "/s/b.txt") > 0 ? 0 : 3;
    } else if (op == "compact" || op == "checkpoint") {
        rc = (op == "compact" ? trn_compact(e) : trn_checkpoint(e)) ? 0 : 3;
    } else if (op == "rebuild") {
        rc = ingest(e, "/s/x.txt", "x-ray one, x-ray two");
        rc = rc ? rc : (trn_checkpoint(e) ? 0 : 3);
    } else if (op == "state") {
        rc = print_state(e);
    } else if (op == "check") {
        print_state(e);
        rc = ingest(e, "/s/e.txt", "echo one, echo two");
        std::printf("--\n");
        print_state(e);
    } else {
        rc = 2;
    }
    if (rc == 3) {
        std::fprintf(stderr, "tarnwick: %s\n", trn_last_error(e));
    }
    trn_close(e);
    return rc;
}
