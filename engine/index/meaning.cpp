/*
** meaning.cpp -- the second phase of an update: vectors for the chunks its first phase committed
** without them.
**
** An update commits the text of every file first (the words phase: chunks, word index, log
** groups of 'A' records), so keyword search is complete after extraction alone, which takes
** seconds where embedding takes minutes. Such chunks are pending: zeros for a vector, no links
** in the graph, left out of semantic search. The meaning phase then embeds them in slot order, a
** group at a time: the vectors are computed without the lock, logged as one group of 'V'
** records under it (wal.cpp), and only then set and linked into the graph. A kill loses at most
** the group being embedded; the next update, or the next start of the application, embeds what
** is still pending and reads no file again for it.
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
    *live = 0;
    *pending = 0;
    for (uint64_t i = 0; i < e->count; i++) {
        if (!e->chunks[i].deleted) {
            *live += 1;
            *pending += e->chunks[i].pending ? 1 : 0;
        }
    }
}

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
    size_t group_size = GROUP_MIN;
    uint64_t from = 0;
    bool ok = true;
    bool embedded_any_this_pass = false;
    std::vector<Taken, XAllocator<Taken>> taken;
    std::vector<const char *, XAllocator<const char *>> texts;
    std::vector<float, XAllocator<float>> vectors;
    for (;;) {
        taken.clear();
        for (uint64_t i = from; i < e->count && taken.size() < group_size; i++) {
            const TrnChunk *c = &e->chunks[i];
            if (c->pending && !c->deleted) {
                Taken t;
                t.slot = i;
                memcpy(t.doc_id, c->doc_id, sizeof t.doc_id);
                t.text = xstrdup(c->text);
                taken.push_back(t);
                from = i + 1;
            }
        }
        if (taken.empty()) {
            /* A reload between groups can move chunks below from: look again from the start,
            ** unless the last pass found nothing it could still embed. */
            if (from == 0 || !embedded_any_this_pass) {
                break;
            }
            from = 0;
            embedded_any_this_pass = false;
            continue;
        }
        texts.clear();
        for (const Taken &t : taken) {
            texts.push_back(t.text);
        }
        vectors.resize(taken.size() * (size_t)e->dim);
        double began = seconds_now();
        embed_distinct_chunks(e, texts.data(), texts.size(), vectors.data());
        double took = seconds_now() - began;

        if (!write_begin(e)) {
            ok = false;
        } else {
            TrnBytes group;
            wal_group_begin(e, &group);
            size_t valid = 0;
            for (size_t i = 0; i < taken.size(); i++) {
                if (still_pending(e, taken[i])) {
                    wal_put_vector(e, &group, taken[i].doc_id, vectors.data() + i * (size_t)e->dim);
                    valid++;
                }
            }
            if (valid > 0 && !wal_commit_group(e, &group)) {
                ok = false;
            } else if (valid > 0) {
                for (size_t i = 0; i < taken.size(); i++) {
                    if (still_pending(e, taken[i])) {
                        set_chunk_vector(e, taken[i].slot, vectors.data() + i * (size_t)e->dim);
                    }
                }
                embedded_any_this_pass = true;
                e->changed = 1;
                if (e->wal) {
                    e->wal_chunks += valid;
                    if (e->wal_chunks >= g_checkpoint_chunks) {
                        checkpoint_locked(e);
                        status_clear(e);
                    }
                }
            }
            write_end(e);
        }
        for (Taken &t : taken) {
            free(t.text);
        }
        if (!ok) {
            break;
        }
        /* The next group to take about GROUP_SECONDS at the pace of this one. */
        double per_chunk = took / (double)taken.size();
        size_t next = per_chunk > 0.0 ? (size_t)(GROUP_SECONDS / per_chunk) : GROUP_MAX;
        group_size = next < GROUP_MIN ? GROUP_MIN : next > GROUP_MAX ? GROUP_MAX : next;
        if (progress) {
            count_pending(e, &live, &waiting);
            if (!progress(nullptr, (int32_t)(live - waiting), (int32_t)live, user)) {
                *cancelled = true;
                break;
            }
        }
    }
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
