/*
** internal.h -- every internal header of the engine at once, for its own sources and its tests.
** Nothing declared below is exported from libtarnwick.so; the project's tests and tools reach it
** through the static library. Benchmarks use probe.h and the part headers instead, and the
** trainers encoder/encoder.h: the handle's record stays the engine's own.
*/
#ifndef TRN_INTERNAL_H
#define TRN_INTERNAL_H

#include "tarnwick.h"

#include "alloc.h"
#include "encoder/embed.h"
#include "encoder/encoder.h"
#include "encoder/vec.h"
#include "handle.h"
#include "index/hnsw.h"
#include "index/index.h"
#include "index/word_index.h"
#include "search/search.h"
#include "storage/manifest.h"
#include "storage/storage.h"
#include "text/files.h"

#endif /* TRN_INTERNAL_H */
