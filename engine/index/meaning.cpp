/*
** meaning.cpp -- the second phase of an update: vectors for the chunks its first phase committed
** without them.
**
** An update commits the text of every file first (the words phase: chunks, word index, log
** groups of 'A' records), so keyword search is complete after extraction alone, which takes
** seconds where embedding takes minutes. Such chunks are pending: zeros for a vector, no links
** in the graph, left out of semantic search. The meaning phase then embeds them in slot order, a
** group at a time: the vectors are computed without the lock, logged as one group of 'V'
** records under it (wal.cpp), and only then set and linked into the graph, each part of the
** graph on a worker of its own (hnsw_insert_many). A kill loses at most the group being
** embedded; the next update, or the next start of the application, embeds what is still
** pending and reads no file again for it.
**
** A group is sized to take about GROUP_SECONDS, so that a slow encoder (a transformer profile,
** a few chunks a second) still reports progress and stops soon when asked, and a fast one does
** not sync the log hundreds of times a second.
*/
#include "internal.h"

#include <cstring>
#include <ctime>

namespace
{

constexpr double GROUP_SECONDS = 2.0;
constexpr size_t GROUP_MIN = 8;
constexpr size_t GROUP_MAX = 1024;

double seconds_now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* A chunk taken for embedding, with copies of what names it: a refresh inside write_begin may
** reload the handle, which moves or frees its chunks. */
struct Taken {
    uint64_t slot;
    char doc_id[TRN_ID_MAX];
    char *text; /* owned */
};

bool still_pending(const TrnEngine *e, const Taken &t)
{
    if (t.slot >= e->count) {
        return false;
    }
    const TrnChunk *c = &e->chunks[t.slot];
    return c->pending && !c->deleted && strcmp(c->doc_id, t.doc_id) == 0
           && strcmp(c->text, t.text) == 0;
}

} // namespace

void count_pending(const TrnEngine *e, uint64_t *live, uint64_t *pending)
{
    *live = e->count - e->deleted_count;
    *pending = e->pending_count;
}

namespace
{

/* A group of chunks on its way: taken, embedding (run), then committed. */
struct Group {
    std::vector<Taken, XAllocator<Taken>> taken;
    std::vector<const char *, XAllocator<const char *>> texts;
    std::vector<float, XAllocator<float>> vectors;
    DistinctPlan plan;
    EmbedRun *run = nullptr;
    double began = 0;
};

/* Takes up to size pending chunks from slot *from on into g (emptied first). */
void take_group(const TrnEngine *e, uint64_t *from, size_t size, Group *g)
{
    g->taken.clear();
    g->texts.clear();
    for (uint64_t i = *from; i < e->count && g->taken.size() < size; i++) {
        const TrnChunk *c = &e->chunks[i];
        if (c->pending && !c->deleted) {
            Taken t;
            t.slot = i;
            memcpy(t.doc_id, c->doc_id, sizeof t.doc_id);
            t.text = xstrdup(c->text);
            g->taken.push_back(t);
            g->texts.push_back(t.text);
            *from = i + 1;
        }
    }
}

/* Starts embedding g's texts; the calling thread is free until finish_group. */
void start_group(TrnEngine *e, Group *g)
{
    g->began = seconds_now();
    g->vectors.resize(g->taken.size() * (size_t)e->dim);
    distinct_plan(e, g->texts.data(), g->texts.size(), g->vectors.data(), &g->plan);
    g->run = embed_start(e, g->plan.fresh.data(), g->plan.fresh.size(), g->plan.vectors.data());
}

/* Ends g's embedding (the calling thread takes part); returns the seconds since it started. */
double finish_group(TrnEngine *e, Group *g)
{
    embed_finish(g->run);
    g->run = nullptr;
    distinct_finish(e, &g->plan, g->vectors.data());
    return seconds_now() - g->began;
}

void free_group(Group *g)
{
    for (Taken &t : g->taken) {
        free(t.text);
    }
    g->taken.clear();
    g->texts.clear();
}

/* Logs g's vectors as one group and links its chunks that are still pending; false when the
** handle could not be written. *embedded tells whether any was. */
bool commit_group(TrnEngine *e, const Group &g, bool *embedded)
{
    if (!write_begin(e)) {
        return false;
    }
    bool ok = true;
    const std::vector<Taken, XAllocator<Taken>> &taken = g.taken;
    const size_t dim = (size_t)e->dim;
    TrnBytes group;
    wal_group_begin(e, &group);
    std::vector<uint32_t, XAllocator<uint32_t>> slots;
    std::vector<const void *, XAllocator<const void *>> vectors;
    for (size_t i = 0; i < taken.size(); i++) {
        if (still_pending(e, taken[i])) {
            wal_put_vector(e, &group, taken[i].doc_id, g.vectors.data() + i * dim);
            slots.push_back((uint32_t)taken[i].slot);
            vectors.push_back(g.vectors.data() + i * dim);
        }
    }
    if (!slots.empty() && !wal_commit_group(e, &group)) {
        ok = false;
    } else if (!slots.empty()) {
        set_chunk_vectors(e, slots.data(), vectors.data(), slots.size());
        *embedded = true;
        e->changed = 1;
        count_logged(e, slots.size());
    }
    write_end(e);
    return ok;
}

} // namespace

/* With more than one worker, the next group is taken and its embedding started on the helper
** threads before this one is committed, so the graph and the log of one group go on beside the
** embedding of the next; the calling thread joins that embedding once it has committed. The next
** group is taken before this one's vectors are in the handle: a text it shares with this one is
** embedded again (the same bits), never copied. */
bool embed_pending(TrnEngine *e, TrnProgressFn progress, void *user, bool *cancelled)
{
    *cancelled = false;
    uint64_t live = 0, waiting = 0;
    count_pending(e, &live, &waiting);
    if (waiting == 0) {
        return true;
    }
    e->meaning_running = 1;
    /* Once before the first group, so that a caller can time the phase and stop it at once. */
    if (progress && !progress(nullptr, (int32_t)(live - waiting), (int32_t)live, user)) {
        e->meaning_running = 0;
        *cancelled = true;
        return true;
    }
    const bool ahead = e->embed_threads > 1;
    size_t group_size = GROUP_MIN;
    uint64_t from = 0;
    bool ok = true;
    bool embedded_any_this_pass = false;
    Group groups[2];
    Group *now = &groups[0];
    Group *next = &groups[1];
    bool next_started = false;
    for (;;) {
        if (next_started) {
            std::swap(now, next);
            next_started = false;
        } else {
            take_group(e, &from, group_size, now);
            if (now->taken.empty()) {
                /* A reload between groups can move chunks below from: look again from the
                ** start, unless the last pass found nothing it could still embed. */
                if (from == 0 || !embedded_any_this_pass) {
                    break;
                }
                from = 0;
                embedded_any_this_pass = false;
                continue;
            }
            start_group(e, now);
        }
        double took = finish_group(e, now);
        /* The next group to take about GROUP_SECONDS at the pace of this one. */
        double per_chunk = took / (double)now->taken.size();
        size_t size = per_chunk > 0.0 ? (size_t)(GROUP_SECONDS / per_chunk) : GROUP_MAX;
        group_size = size < GROUP_MIN ? GROUP_MIN : size > GROUP_MAX ? GROUP_MAX : size;
        if (ahead) {
            take_group(e, &from, group_size, next);
            if (!next->taken.empty()) {
                start_group(e, next);
                next_started = true;
            }
        }
        ok = commit_group(e, *now, &embedded_any_this_pass);
        free_group(now);
        if (!ok) {
            break;
        }
        if (progress) {
            count_pending(e, &live, &waiting);
            if (!progress(nullptr, (int32_t)(live - waiting), (int32_t)live, user)) {
                *cancelled = true;
                break;
            }
        }
    }
    if (next_started) {
        finish_group(e, next);
    }
    free_group(next);
    e->meaning_running = 0;
    return ok;
}

extern "C" {

int32_t trn_meaning_progress(const TrnEngine *e, uint64_t *done, uint64_t *all)
{
    uint64_t live = 0, waiting = 0;
    if (e) {
        count_pending(e, &live, &waiting);
    }
    if (done) {
        *done = live - waiting;
    }
    if (all) {
        *all = live;
    }
    return e && e->meaning_running ? 1 : 0;
}

} /* extern "C" */
