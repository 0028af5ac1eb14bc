/*
** index_commands.cpp -- index, update and watch: bringing a directory's index up to date, once or
** whenever it changes, with a progress line and a clean stop at Ctrl+C or SIGTERM.
*/
#include "index_commands.h"

#include "common.h"
#include "json.h"
#include "model_commands.h"
#include "priority.h"
#include "progress.h"
#include "tarnwick.h"

#include <cstdio>
#include <string>

#include <csignal>

#include <poll.h>
#include <unistd.h>

namespace
{

// How long watch waits for changes to stop before it updates: an editor's save, a checkout or an
// unpacked archive gives one update.
constexpr int WATCH_SETTLE_MS = 2000;

struct UpdateProgress {
    ProgressLine line;
    const TrnEngine *engine;
    TrnUpdateReport report; // filled in by the engine as the update goes
    int32_t done = 0;       // files handled of total
    int32_t total = 0;
    // The meaning phase, once it began: when, and the chunks embedded then and now, of all.
    bool meaning = false;
    Clock::time_point meaning_start{};
    uint64_t embedded_at_start = 0;
    uint64_t embedded = 0;
    uint64_t chunks = 0;
};

// "words: all 551 files · meaning: 38%, about 9 min left", the line the status bar shows too.
std::string meaning_text(const UpdateProgress &p)
{
    char text[192];
    trn_meaning_line(static_cast<int32_t>(trn_stats(p.engine).file_count),
                     p.embedded,
                     p.chunks,
                     p.embedded_at_start,
                     seconds_since(p.meaning_start),
                     text,
                     sizeof text);
    return text;
}

// The number of the signal (SIGINT, SIGTERM) that asked the work to stop; 0 while none did.
volatile sig_atomic_t g_stop = 0;

void on_stop_signal(int signal_number)
{
    g_stop = signal_number;
}

// From here on Ctrl+C and SIGTERM stop indexing after the file in hand, whose group is then
// committed. The handler is reset by its first signal, so a second Ctrl+C ends the program at
// once (committed groups survive that too).
void stop_at_signals()
{
    struct sigaction act = {};
    act.sa_handler = on_stop_signal;
    act.sa_flags = SA_RESETHAND;
    sigemptyset(&act.sa_mask);
    sigaction(SIGINT, &act, nullptr);
    sigaction(SIGTERM, &act, nullptr);
}

bool on_update_progress(const char *, int32_t done, int32_t total, void *user)
{
    UpdateProgress *p = static_cast<UpdateProgress *>(user);
    if (trn_meaning_progress(p->engine, &p->embedded, &p->chunks) == 1) {
        if (!p->meaning) {
            p->meaning = true;
            p->meaning_start = Clock::now();
            p->embedded_at_start = p->embedded;
        }
        if (p->line.shown()) {
            p->line.update_text(meaning_text(*p), p->embedded >= p->chunks);
        }
        return g_stop == 0;
    }
    p->done = done;
    p->total = total;
    if (p->line.shown() && total > 0) {
        uint64_t bytes_done = 0, bytes_all = 0;
        trn_update_progress(p->engine, &bytes_done, &bytes_all);
        p->line.update(done, total, (uint32_t)p->report.chunks_added, bytes_done, bytes_all);
    }
    return g_stop == 0;
}

// What one update did: a line of text, or a JSON object with --json.
std::string update_line(const Options &o, const TrnUpdateReport &r, double seconds)
{
    if (o.json) {
        JsonWriter w;
        w.begin_object();
        w.key("added");
        w.integer(r.added);
        w.key("changed");
        w.integer(r.changed);
        w.key("removed");
        w.integer(r.removed);
        w.key("unchanged");
        w.integer(r.unchanged);
        w.key("failed");
        w.integer(r.failed);
        w.key("chunksAdded");
        w.integer(r.chunks_added);
        w.key("compacted");
        w.boolean(r.compacted != 0);
        w.key("seconds");
        w.number((float)seconds);
        w.end_object();
        return w.str() + "\n";
    }
    char line[256];
    std::snprintf(line,
                  sizeof line,
                  "updated: %d added, %d changed, %d removed, %d unchanged, %d failed, %d chunks "
                  "in %.1f s%s\n",
                  r.added,
                  r.changed,
                  r.removed,
                  r.unchanged,
                  r.failed,
                  r.chunks_added,
                  seconds,
                  r.compacted ? " (compacted)" : "");
    return line;
}

// Everything an update of root needs, settled once for update and for every round of watch.
struct UpdateSetup {
    std::string root;
    std::string weights;
    std::string description; // of the encoder, for messages
    int32_t chunk_size = 0;
    int32_t overlap = 0;
    WalkConfig config;
    std::vector<const char *> extension_pointers;
    std::vector<const char *> exclude_pointers;
    TrnWalkOptions walk{}; // points into config and the two vectors
};

// What index, update and watch read from the command line and the application's settings.
void prepare_update(const Options &o, const ModelRuntime &model, UpdateSetup *u)
{
    application_chunking(model, &u->chunk_size, &u->overlap);
    u->chunk_size = o.chunk_size.value_or(u->chunk_size);
    u->overlap = o.overlap.value_or(u->overlap);
    check_chunking(u->chunk_size, u->overlap);
    u->root = resolve_dir(o.operands[0]);
    u->weights = chosen_weights(o, model, u->root, &u->description);
    check_weights(u->weights);
    ensure_index_dir(index_dir_of(u->root));
    u->config = walk_config(o, model);
    u->walk = u->config.view(&u->extension_pointers, &u->exclude_pointers);
    stop_at_signals();
    // The program only indexes from here on, so its one thread may stay idle for good.
    if (o.nice && !thread_set_idle()) {
        std::fprintf(stderr, "tarnwick: cannot lower the priority: %s\n", errno_text().c_str());
    }
}

// Opens root's index for an update. An index that holds no chunk yet takes this encoder, recorded
// before the first chunk is committed, so that an indexing killed or stopped half-way is
// continued by the next update rather than refused; one that another encoder built is refused,
// since vectors of two encoders in one index would not compare.
EnginePtr open_for_update(const UpdateSetup &u)
{
    EnginePtr engine = open_engine(index_dir_of(u.root), u.weights);
    if (trn_stats(engine.get()).chunk_count == 0) {
        note_index_encoder(u.root, u.weights);
    } else if (!index_encoder_matches(u.root, u.weights)) {
        throw Failure("the index of " + u.root + " was built with another encoder (" + u.description
                      + " now); rebuild it with tarnwick-cli index " + u.root);
    }
    return engine;
}

// One walk of root into e, showing progress as label; returns what changed. Throws Failure when
// it failed, Interrupted when a signal stopped it (what was committed stays). On a rebuilding
// handle the new index replaces the old one at the end.
TrnUpdateReport run_walk(const char *label, const UpdateSetup &u, TrnEngine *e, bool rebuilding)
{
    UpdateProgress progress{ProgressLine{label}, e, {}};
    int32_t n = trn_update_dir(e,
                               u.root.c_str(),
                               u.chunk_size,
                               u.overlap,
                               &u.walk,
                               on_update_progress,
                               &progress,
                               &progress.report);
    progress.line.clear();
    if (n < 0) {
        const std::string why = trn_last_status(e) != TRN_STATUS_OK
                                    ? std::string(trn_last_error(e))
                                    : "cannot open directory " + u.root;
        trn_rollback(e); // a failed command leaves the index as it found it
        throw Failure(why);
    }
    if (progress.report.cancelled) {
        const TrnUpdateReport &r = progress.report;
        if (rebuilding) {
            throw Interrupted(g_stop, "interrupted: the index of " + u.root + " stays as it was");
        }
        if (progress.meaning) {
            throw Interrupted(g_stop,
                              "interrupted: " + meaning_text(progress)
                                  + " (keyword search is complete); tarnwick-cli update " + u.root
                                  + " goes on");
        }
        throw Interrupted(g_stop,
                          "interrupted after " + std::to_string(progress.done) + " of "
                              + std::to_string(progress.total) + " files ("
                              + std::to_string(r.chunks_added)
                              + " chunks kept); tarnwick-cli update " + u.root + " goes on");
    }
    note_index_encoder(u.root, u.weights);
    return progress.report;
}

// Folds the log into the store at the end of a command that wrote. When that fails (a full disk)
// the command fails, and what it logged is cut off again: left in the log, it would be embedded
// anew at every open until some checkpoint succeeded.
void checkpoint_or_undo(TrnEngine *e)
{
    if (!trn_checkpoint(e)) {
        const std::string why = trn_last_error(e);
        trn_rollback(e);
        throw Failure(why);
    }
}

// One update of root; writes its line.
void run_update(const Options &o, const UpdateSetup &u, TrnEngine *e)
{
    Clock::time_point start = Clock::now();
    const TrnUpdateReport report = run_walk("Updating", u, e, false);
    write_out(update_line(o, report, seconds_since(start)));
}

// Waits for a change below root that then stays quiet for settle_ms, or for another process to
// commit to the index (a rebuild that replaced it brings back what it read before the last
// changes); false when a signal asked to stop first.
bool wait_for_settled_change(TrnWatch *w, const TrnEngine *e, int settle_ms)
{
    bool changed = false;
    while (!g_stop) {
        int fd = trn_watch_fd(w);
        if (fd >= 0) {
            struct pollfd p = {fd, POLLIN, 0};
            int rc = poll(&p, 1, settle_ms);
            if (rc == 0 && (changed || trn_index_changed(e))) {
                return true; /* quiet for settle_ms after a change */
            }
            if (rc > 0 && trn_watch_changed(w)) {
                changed = true;
            }
        } else {
            /* The comparing fallback: look every settle_ms, update once a look finds no news. */
            usleep((useconds_t)settle_ms * 1000);
            if (g_stop) {
                break;
            }
            if (trn_watch_changed(w)) {
                changed = true;
            } else if (changed || trn_index_changed(e)) {
                return true;
            }
        }
    }
    return false;
}

} // namespace

// index DIR: a directory without an index is indexed in place, each file committed as it is
// done, so a stopped first indexing keeps its work for the next update. An existing index is
// rebuilt from scratch beside the old one, which searches keep using until the new one is
// complete and replaces it.
void cmd_index(const Options &o, const ModelRuntime &model)
{
    UpdateSetup u;
    prepare_update(o, model, &u);
    std::fprintf(stderr, "tarnwick: encoder: %s\n", display_text(u.description, false).c_str());
    Clock::time_point start = Clock::now();
    const bool rebuilding = has_index(u.root);
    EnginePtr engine =
        open_engine(index_dir_of(u.root), u.weights, rebuilding ? TRN_OPEN_REBUILD : 0);
    if (!rebuilding) {
        note_index_encoder(u.root, u.weights);
    }
    run_walk("Indexing", u, engine.get(), rebuilding);
    checkpoint_or_undo(engine.get());
    const TrnStats st = trn_stats(engine.get());
    write_out(indexed_line(st.file_count, st.chunk_count, seconds_since(start)));
}

void cmd_update(const Options &o, const ModelRuntime &model)
{
    UpdateSetup u;
    prepare_update(o, model, &u);
    EnginePtr engine = open_for_update(u);
    Clock::time_point start = Clock::now();
    const TrnUpdateReport report = run_walk("Updating", u, engine.get(), false);
    checkpoint_or_undo(engine.get());
    write_out(update_line(o, report, seconds_since(start)));
}

void cmd_watch(const Options &o, const ModelRuntime &model)
{
    UpdateSetup u;
    prepare_update(o, model, &u);
    EnginePtr engine = open_for_update(u);
    std::unique_ptr<TrnWatch, void (*)(TrnWatch *)> watch(trn_watch_open(u.root.c_str(), &u.walk),
                                                          trn_watch_close);
    if (!watch) {
        throw Failure("cannot watch directory " + u.root);
    }
    if (trn_watch_fd(watch.get()) < 0) {
        std::fprintf(stderr,
                     "tarnwick: too many directories for the system's watch limit "
                     "(fs.inotify.max_user_watches): comparing every %d s instead\n",
                     WATCH_SETTLE_MS / 1000);
    }
    // Changes made while the program was not running come in first.
    run_update(o, u, engine.get());
    std::fflush(stdout);
    while (wait_for_settled_change(watch.get(), engine.get(), WATCH_SETTLE_MS)) {
        run_update(o, u, engine.get());
        std::fflush(stdout);
    }
    // SIGTERM is how a service is stopped: a success. Ctrl+C is answered as everywhere else.
    if (g_stop == SIGINT) {
        throw Interrupted(SIGINT, "stopped watching " + u.root);
    }
}
