/*
** manifest.h -- the file manifest (manifest.cpp): what the index knows of each file it walked,
** so an update reads only the files that changed.
*/
#ifndef TRN_MANIFEST_H
#define TRN_MANIFEST_H

#include "storage.h"

#include <cstddef>
#include <cstdint>

constexpr uint32_t MANIFEST_FLAG_RECENT = 1; /* modified just before it was read: read again */
/* Read whole and found to be text in no charset the reader knows. A text file whose entry says
** binary without this flag was judged by a reader that knew only UTF-8, and is read again. */
constexpr uint32_t MANIFEST_FLAG_NO_TEXT = 2;
/* Its text was cut at the size limit: the listing says so for as long as the entry stands. */
constexpr uint32_t MANIFEST_FLAG_CUT = 4;

struct ManifestEntry {
    char *path; /* owned */
    uint64_t size;
    int64_t mtime_ns;
    int64_t ctime_ns;
    uint64_t inode;
    uint64_t text_hash; /* of the text that was chunked; 0 for a file not indexed */
    uint32_t type;      /* TrnFileType */
    uint32_t chunks;    /* live chunks the file had when the entry was written */
    uint32_t flags;
};

struct Manifest {
    int32_t chunk_size;
    int32_t overlap;
    uint32_t text_version;
    ManifestEntry *entries; /* count entries, owned */
    uint32_t count;
    uint32_t capacity;
    bool paths_full; /* read from a version 1 file, which wrote every path whole */
};

/* How text is taken from files and cut into windows; an index whose manifest names another
** version trusts no entry, so its next update reads, cuts and embeds every file again. 2: windows
** that reach the text's end and never split a character. 3: each PDF page begins with a form feed
** line; a manifest of version 2 is trusted but for its PDFs, which are read again. */
constexpr uint32_t MANIFEST_TEXT_VERSION = 3;
constexpr uint32_t MANIFEST_TEXT_VERSION_UNMARKED_PAGES = 2;

struct TrnEngine;

/* Reads the manifest "tarnwick.files" of e's index directory into m (emptied first). False, with
** m empty, when it is missing, damaged or of another version: the caller then trusts no entry. */
bool manifest_read(const TrnEngine *e, Manifest *m);
/* Writes m as e's manifest atomically (temporary file, sync, rename, directory sync), mode 0600.
** False when it could not be written (the old manifest then stays). */
bool manifest_write(const TrnEngine *e, const Manifest *m);
/* Drops the entries of paths from e's manifest, in place, so the next update reads those files
** again; removes the manifest when that fails. False then. */
bool manifest_forget(const TrnEngine *e, const TrnPathList &paths);
/* Appends a copy of e (its path copied). */
void manifest_add(Manifest *m, const ManifestEntry *e);
void manifest_free(Manifest *m);
/* 64-bit FNV-1a of n bytes. */
uint64_t text_hash(const char *p, size_t n);

#endif /* TRN_MANIFEST_H */
