#!/usr/bin/env python3
"""Trains the whole encoder, both layers included, with PyTorch (an accelerator if there is one).

    context_trainer.py --init IN.tten --corpus CORPUS --pairs PAIRS --out OUT.tten
                       [--minutes M] [--batch B] [--lr R] [--pairs-share S] [--seed N] [--bag]
    context_trainer.py --check IN.tten --lib build/lib/libtarnwick.so [--bag]

The C++ trainer (trainer --bag) trains a bag of words: every token keeps one row whatever its
neighbours, so a word never reads its context. This program trains the engine's whole forward
pass (the token rows, the position rows, both layers and the norms) on the same kinds of pairs,
in large batches, which takes an accelerator to be done in minutes. It starts from a bag-of-words
file (the built-in encoder): its layers' output projections are zero there, so the start embeds
every text exactly as that file does, and training only adds what reading in context finds.

CORPUS and PAIRS are what scripts/default_encoder_corpus.py writes (plain, or compressed with xz):
documents each followed by a blank line, and pairs FIRST 0x1f SECOND 0x1e. Each batch mixes
mined pairs (a share S) with pairs drawn from the corpus: a span of 3 to 24 words of an 800-byte
window (the engine's chunk) against that window, half of them with the span taken out so that
only meaning can match them; windows come in neighbouring twos, each a hard negative for the
other. The loss is the trainer's: symmetric InfoNCE over the batch at temperature 0.05.

With --bag only the token rows train, through the engine's bag embedding, so OUT stays a bag of
words that indexes at the same pace.

OUT is a version 4 weights file in half precision, written every SAVE minutes and at the end, so
a run stopped early still leaves its last state. --check embeds texts with the engine's library
and with the model here and prints the largest difference (the forward passes must agree).
"""
import argparse
import ctypes
import lzma
import math
import multiprocessing
import os
import random
import struct
import sys
import time

import numpy as np
import torch
import torch.nn.functional as F

DIM, HEADS, HEAD_DIM, FF, LAYERS, MAX_SEQ = 512, 8, 64, 2048, 2, 256
BEGIN, END = 257, 258
LAYER_NAMES = ["wq", "wk", "wv", "wo", "w1", "b1", "w2", "b2", "ln1_g", "ln1_b", "ln2_g", "ln2_b"]
LAYER_SHAPES = [(DIM, DIM)] * 4 + [(DIM, FF), (FF,), (FF, DIM), (DIM,)] + [(DIM,)] * 4
TAG_F32, TAG_F16, TAG_ZERO = 0, 1, 2
TEMPERATURE = 0.05


# ---------------------------------------------------------------------------------------------
# Weights files
# ---------------------------------------------------------------------------------------------
def read_tten(path):
    """Returns (merges as an m x 2 uint32 array, meta bytes, tensors in file order)."""
    with open(path, "rb") as f:
        data = f.read()
    magic, version, vocab, seq, dim, heads, ff, layers = struct.unpack_from("<4s7I", data, 0)
    if magic != b"TTEN" or version not in (3, 4) or (seq, dim, heads, ff, layers) != (
            MAX_SEQ, DIM, HEADS, FF, LAYERS):
        sys.exit("context_trainer: %s is not a version 3 or 4 weights file of this shape" % path)
    meta = data[32:60]
    (m,) = struct.unpack_from("<I", data, 60)
    merges = np.frombuffer(data, dtype="<u4", count=2 * m, offset=64).reshape(m, 2)
    at = 64 + 8 * m
    shapes = [(vocab, DIM), (MAX_SEQ, DIM), (DIM,), (DIM,)] + LAYER_SHAPES * LAYERS
    tensors = []
    for shape in shapes:
        n = int(np.prod(shape))
        tag = TAG_F32
        if version == 4:
            (tag,) = struct.unpack_from("<I", data, at)
            at += 4
        if tag == TAG_ZERO:
            t = np.zeros(n, np.float32)
        elif tag == TAG_F16:
            t = np.frombuffer(data, dtype="<f2", count=n, offset=at).astype(np.float32)
            at += 2 * n
        else:
            t = np.frombuffer(data, dtype="<f4", count=n, offset=at).astype(np.float32)
            at += 4 * n
        tensors.append(t.reshape(shape))
    if at != len(data):
        sys.exit("context_trainer: %s has %d bytes after its tensors" % (path, len(data) - at))
    return merges, meta, tensors


def write_tten(path, merges, meta, tensors):
    """Writes version 4 in half precision, as the engine's saving picks each tensor's tag."""
    vocab = len(merges) + 260
    tmp = path + ".part"
    with open(tmp, "wb") as f:
        f.write(struct.pack("<4s7I", b"TTEN", 4, vocab, MAX_SEQ, DIM, HEADS, FF, LAYERS))
        f.write(meta)
        f.write(struct.pack("<I", len(merges)))
        f.write(np.ascontiguousarray(merges, dtype="<u4").tobytes())
        for i, t in enumerate(tensors):
            t = np.ascontiguousarray(t, dtype=np.float32).reshape(-1)
            half = t.astype("<f2")
            if i > 0 and not t.view(np.uint32).any():
                f.write(struct.pack("<I", TAG_ZERO))
            elif np.isfinite(half).all():
                f.write(struct.pack("<I", TAG_F16))
                f.write(half.tobytes())
            else:
                f.write(struct.pack("<I", TAG_F32))
                f.write(t.astype("<f4").tobytes())
    os.replace(tmp, path)


# ---------------------------------------------------------------------------------------------
# Tokenizer: the engine's merges replayed over each word unit (the units the merges were learned
# over, trainers/word_bpe.cpp), cached per unit. The only merges that reach across units join
# spaces, so a run of white space is replayed together with the unit after it; --check counts the
# texts whose ids equal the engine's.
# ---------------------------------------------------------------------------------------------
def byte_class(c):
    if 97 <= c <= 122 or 65 <= c <= 90 or c >= 0x80:
        return 0
    if 48 <= c <= 57:
        return 1
    return 2 if c in (32, 9, 10, 13) else 3


CLASS = bytes(byte_class(c) for c in range(256))


def word_units(b):
    n, i, out = len(b), 0, []
    while i < n:
        start = j = i
        if CLASS[b[i]] == 2:
            while j < n and CLASS[b[j]] == 2:
                j += 1
            if j < n and b[j - 1] == 32 and j - 1 > i:
                j -= 1
            starts_next = j == i + 1 and b[i] == 32 and j < n and CLASS[b[j]] != 2
            if not starts_next:
                out.append(b[start:j])
                i = j
                continue
        c = CLASS[b[j]]
        while j < n and CLASS[b[j]] == c:
            j += 1
        out.append(b[start:j])
        i = j
    return out


class Tokenizer:
    def __init__(self, merges):
        self.rank = {(int(a), int(b)): k for k, (a, b) in enumerate(merges)}
        self.cache = {}

    def unit(self, u):
        ids = self.cache.get(u)
        if ids is not None:
            return ids
        ids = list(u)
        rank = self.rank
        while len(ids) > 1:
            best, at = None, -1
            for p in range(len(ids) - 1):
                r = rank.get((ids[p], ids[p + 1]))
                if r is not None and (best is None or r < best):
                    best, at = r, p
            if best is None:
                break
            new = 260 + best
            pair = (ids[at], ids[at + 1])
            out, p = [], 0
            while p < len(ids):
                if p + 1 < len(ids) and (ids[p], ids[p + 1]) == pair:
                    out.append(new)
                    p += 2
                else:
                    out.append(ids[p])
                    p += 1
            ids = out
        if len(self.cache) < 2_000_000:
            self.cache[u] = ids
        return ids

    def encode(self, text, max_ids=MAX_SEQ):
        b = text.encode("utf-8", "replace").replace(b"\0", b" ")
        ids = [BEGIN]
        units, held = [], b""
        for u in word_units(b):  # white space may merge with the space that starts what follows
            if CLASS[u[0]] == 2 and not (len(u) > 1 and u[0] == 32 and CLASS[u[1]] != 2):
                held += u
            else:
                units.append(held + u)
                held = b""
        if held:
            units.append(held)
        for u in units:
            ids.extend(self.unit(u))
            if len(ids) >= max_ids - 1:
                break
        return ids[: max_ids - 1] + [END]


# ---------------------------------------------------------------------------------------------
# Training pairs
# ---------------------------------------------------------------------------------------------
def read_text(path):
    opener = lzma.open if path.endswith(".xz") else open
    with opener(path, "rb") as f:
        return f.read().decode("utf-8", "replace")


def query_span(window, rng):
    words = window.split()
    if len(words) < 6:
        return None, window
    k = rng.randint(3, min(24, len(words) - 2))
    start = rng.randint(0, len(words) - k)
    span = " ".join(words[start : start + k])
    rest = " ".join(words[:start] + words[start + k :])
    return span, rest


_tok = None
_corpus = None


def _init_worker(merges, corpus_path):
    global _tok, _corpus
    _tok = Tokenizer(merges)
    _corpus = read_text(corpus_path) if corpus_path else None


def _window_pairs(args):
    """Two neighbouring windows per group, each with a query span (taken out for cloze pairs)."""
    seed, groups = args
    rng = random.Random(seed)
    out = []
    n = len(_corpus)
    for _ in range(groups):
        at = rng.randrange(0, max(1, n - 3000))
        blank = _corpus.find("\n\n", at, at + 1500)
        if blank >= 0 and rng.random() < 0.5:
            at = blank + 2
        for j in range(2):
            window = _corpus[at + 600 * j : at + 600 * j + 800]
            span, rest = query_span(window, rng)
            if span is None:
                continue
            passage = rest if rng.random() < 0.5 else window
            out.append((_tok.encode(span), _tok.encode(passage)))
    return out


def _mined_pairs(chunk):
    return [(_tok.encode(a), _tok.encode(b)) for a, b in chunk]


def build_data(merges, corpus_path, pairs_path, window_groups, workers, seed):
    t0 = time.time()
    mined = []
    for rec in read_text(pairs_path).split("\x1e"):
        if "\x1f" in rec:
            a, b = rec.split("\x1f", 1)
            if a.strip() and b.strip():
                mined.append((a, b))
    with multiprocessing.Pool(workers, _init_worker, (merges, corpus_path)) as pool:
        chunks = [mined[i : i + 2000] for i in range(0, len(mined), 2000)]
        mined_ids = [p for part in pool.imap(_mined_pairs, chunks) for p in part]
        jobs = [(seed * 100003 + i, 2000) for i in range((window_groups + 1999) // 2000)]
        windows = [p for part in pool.imap(_window_pairs, jobs) for p in part]
    print("context_trainer: %d mined pairs, %d window pairs, %.0f s" % (
        len(mined_ids), len(windows), time.time() - t0), flush=True)
    return mined_ids, windows


def pad(seqs, device):
    n = max(len(s) for s in seqs)
    ids = torch.zeros(len(seqs), n, dtype=torch.long)
    mask = torch.zeros(len(seqs), n, dtype=torch.bool)
    for i, s in enumerate(seqs):
        ids[i, : len(s)] = torch.tensor(s)
        mask[i, : len(s)] = True
    return ids.to(device, non_blocking=True), mask.to(device, non_blocking=True)


# ---------------------------------------------------------------------------------------------
# The engine's forward pass (engine/encoder/encoder.cpp) over padded batches
# ---------------------------------------------------------------------------------------------
class Encoder(torch.nn.Module):
    def __init__(self, tensors):
        super().__init__()
        p = lambda t: torch.nn.Parameter(torch.tensor(np.array(t, dtype=np.float32)))
        self.tok, self.pos, self.lnf_g, self.lnf_b = (p(t) for t in tensors[:4])
        self.layers = torch.nn.ModuleList()
        for l in range(LAYERS):
            layer = torch.nn.Module()
            for name, t in zip(LAYER_NAMES, tensors[4 + 12 * l : 16 + 12 * l]):
                setattr(layer, name, p(t))
            self.layers.append(layer)

    def tensors(self):
        out = [self.tok, self.pos, self.lnf_g, self.lnf_b]
        for layer in self.layers:
            out += [getattr(layer, name) for name in LAYER_NAMES]
        return [t.detach().float().cpu().numpy() for t in out]

    def forward(self, ids, mask):
        b, n = ids.shape
        x = self.tok[ids] + self.pos[:n].unsqueeze(0)
        keep = mask.view(b, 1, 1, n)
        for L in self.layers:
            a = F.layer_norm(x, (DIM,), L.ln1_g, L.ln1_b, 1e-5)
            q, k, v = ((a @ w).view(b, n, HEADS, HEAD_DIM).transpose(1, 2)
                       for w in (L.wq, L.wk, L.wv))
            if hasattr(F, "scaled_dot_product_attention"):
                ctx = F.scaled_dot_product_attention(q, k, v, attn_mask=keep)  # scale 1/8
            else:
                s = (q @ k.transpose(-1, -2)) * 0.125
                ctx = s.masked_fill(~keep, float("-inf")).softmax(-1) @ v
            x = x + ctx.transpose(1, 2).reshape(b, n, DIM) @ L.wo
            h = F.layer_norm(x, (DIM,), L.ln2_g, L.ln2_b, 1e-5) @ L.w1 + L.b1
            x = x + F.gelu(h, approximate="tanh") @ L.w2 + L.b2
        y = F.layer_norm(x.float(), (DIM,), self.lnf_g, self.lnf_b, 1e-5)
        m = mask.unsqueeze(-1).float()
        pooled = (y * m).sum(1) / m.sum(1)
        return F.normalize(pooled, dim=-1, eps=1e-12)


class Bag(Encoder):
    """The same weights read as a bag of words (zero positions and layer outputs): each token's
    row through the final norm, a token the text holds c times weighing 1 + ln c, summed,
    normalised (the engine's encoder_embed). Only the rows train."""

    def __init__(self, tensors):
        super().__init__(tensors)
        for p in self.parameters():
            p.requires_grad_(p is self.tok)

    def forward(self, ids, mask):
        rows = F.layer_norm(self.tok, (DIM,), self.lnf_g, self.lnf_b, 1e-5)
        # each of a token's c places weighs (1 + ln c) / c
        held = mask.unsqueeze(1) & mask.unsqueeze(2)
        count = ((ids.unsqueeze(1) == ids.unsqueeze(2)) & held).sum(-1).clamp(min=1).float()
        weight = mask.float() * (1 + torch.log(count)) / count
        pooled = F.embedding_bag(ids, rows, mode="sum", per_sample_weights=weight)
        return F.normalize(pooled, dim=-1, eps=1e-12)


def info_nce(za, zb):
    logits = (za @ zb.t()) / TEMPERATURE
    target = torch.arange(len(za), device=za.device)
    return 0.5 * (F.cross_entropy(logits, target) + F.cross_entropy(logits.t(), target))


# ---------------------------------------------------------------------------------------------
# Modes
# ---------------------------------------------------------------------------------------------
def check(args):
    """The engine's embedding of some texts against this forward pass, and its ids against ours."""
    merges, meta, tensors = read_tten(args.check)
    rng = np.random.default_rng(7)
    for l in range(0 if args.bag else LAYERS):  # else context-reading: every layer non-zero
        for i, shape in enumerate(LAYER_SHAPES):
            if LAYER_NAMES[i] in ("wq", "wk", "wv", "wo", "w1", "w2", "b1", "b2"):
                tensors[4 + 12 * l + i] = rng.normal(0, 0.03, shape).astype(np.float32)
    if not args.bag:
        tensors[1] = rng.normal(0, 0.1, (MAX_SEQ, DIM)).astype(np.float32)
    path = os.path.join(os.environ.get("TMPDIR", "/tmp"), "context_trainer.%d.tten" % os.getpid())
    write_tten(path, merges, meta, tensors)
    lib = ctypes.CDLL(args.lib)
    lib.trn_encoder_init.restype = ctypes.c_void_p
    lib.trn_encoder_load_weights.argtypes = [ctypes.c_void_p, ctypes.c_char_p]
    lib.trn_encoder_embed_text.argtypes = [ctypes.c_void_p, ctypes.c_char_p,
                                           ctypes.POINTER(ctypes.c_float)]
    lib.trn_encoder_free.argtypes = [ctypes.c_void_p]
    enc = lib.trn_encoder_init(42)
    try:
        if lib.trn_encoder_load_weights(enc, path.encode()) != 1:
            sys.exit("context_trainer: the engine refused the file written here")
        _, _, back = read_tten(path)
    finally:
        os.unlink(path)
    model = (Bag if args.bag else Encoder)(back).eval()
    tok = Tokenizer(merges)
    text = read_text(args.corpus) if args.corpus else open(__file__).read()
    texts = [text[i : i + 800] for i in range(0, min(len(text), 400_000), 4000)]
    texts = [t for t in texts if "\0" not in t]
    worst, same = 0.0, 0
    out = (ctypes.c_float * DIM)()
    bpe = write_bpe(merges, lib)
    ids_c = (ctypes.c_uint32 * MAX_SEQ)()
    for t in texts:
        lib.trn_encoder_embed_text(enc, t.encode("utf-8", "replace"), out)
        n = lib.trn_bpe_encode(bpe, t.encode("utf-8", "replace"), ids_c, MAX_SEQ)
        engine_ids = list(ids_c[:n])
        same += engine_ids == tok.encode(t)
        with torch.no_grad():
            ids, mask = pad([engine_ids], "cpu")
            z = model(ids, mask)[0].numpy()
        worst = max(worst, float(np.abs(z - np.frombuffer(out, np.float32)).max()))
    lib.trn_encoder_free(enc)
    lib.trn_bpe_free(bpe)
    print("context_trainer: %d texts: largest difference from the engine %.2e; ids equal to the "
          "engine's for %d" % (len(texts), worst, same))
    return 0 if worst < 1e-4 else 1


def write_bpe(merges, lib):
    lib.trn_bpe_load.restype = ctypes.c_void_p
    lib.trn_bpe_load.argtypes = [ctypes.c_char_p]
    lib.trn_bpe_encode.argtypes = [ctypes.c_void_p, ctypes.c_char_p,
                                   ctypes.POINTER(ctypes.c_uint32), ctypes.c_int32]
    lib.trn_bpe_free.argtypes = [ctypes.c_void_p]
    path = "%s.%d.bpe" % (os.path.join(os.environ.get("TMPDIR", "/tmp"), "context_trainer"),
                          os.getpid())
    try:
        with open(path, "wb") as f:
            f.write(b"TBPE" + struct.pack("<I", len(merges)))
            f.write(np.ascontiguousarray(merges, dtype="<u4").tobytes())
        return lib.trn_bpe_load(path.encode())
    finally:
        os.unlink(path)


def train(args):
    torch.manual_seed(args.seed)
    rng = random.Random(args.seed)
    device = args.device or ("cuda" if torch.cuda.is_available() else "cpu")
    merges, meta, tensors = read_tten(args.init)
    nrng = np.random.default_rng(args.seed)
    for l in range(0 if args.bag else LAYERS):
        # A bag of words has zero layers; drawing the inputs' projections (the outputs' stay zero)
        # keeps its embeddings and lets gradients reach both sides.
        for i, name in enumerate(LAYER_NAMES):
            t = tensors[4 + 12 * l + i]
            if name in ("wq", "wk", "wv", "w1") and not t.any():
                tensors[4 + 12 * l + i] = nrng.normal(0, 0.02, t.shape).astype(np.float32)
    mined, windows = build_data(merges, args.corpus, args.pairs, args.window_groups,
                                args.workers, args.seed)
    model = (Bag if args.bag else Encoder)(tensors).to(device)
    if device == "cuda":
        print("context_trainer: on %s" % torch.cuda.get_device_name(0), flush=True)
    rng.shuffle(mined)
    held, mined = mined[:1000], mined[1000:]
    first_right = held_out_r1(model, held, device)
    emb = [model.tok, model.pos]
    norms = [model.lnf_g, model.lnf_b] + [getattr(L, n) for L in model.layers
                                          for n in LAYER_NAMES if n.startswith("ln") or
                                          n.startswith("b")]
    mats = [getattr(L, n) for L in model.layers for n in ("wq", "wk", "wv", "wo", "w1", "w2")]
    groups = [
        {"params": emb, "lr": args.lr * args.emb_rate, "weight_decay": 0.0},
        {"params": norms, "lr": args.lr, "weight_decay": 0.0},
        {"params": mats, "lr": args.lr, "weight_decay": 0.01},
    ]
    if args.bag:
        groups = [{"params": [model.tok], "lr": args.lr, "weight_decay": 0.0}]
    opt = torch.optim.AdamW(groups, lr=args.lr, betas=(0.9, 0.98))
    base = [g["lr"] for g in opt.param_groups]
    n_mined = int(round(args.batch * args.pairs_share))
    budget = args.minutes * 60.0
    t0 = last_save = time.time()
    step, losses = 0, []
    autocast = torch.autocast("cuda", dtype=torch.bfloat16) if device == "cuda" else None
    while True:
        elapsed = time.time() - t0
        if elapsed >= budget or (args.steps and step >= args.steps):
            break
        frac = elapsed / budget if not args.steps else step / args.steps
        warm = min(1.0, (step + 1) / args.warmup)
        for g, lr in zip(opt.param_groups, base):
            g["lr"] = lr * warm * 0.5 * (1 + math.cos(math.pi * min(1.0, frac)))
        group_start = rng.randrange(0, max(1, len(windows) - args.batch))
        batch = rng.sample(mined, n_mined) + windows[group_start : group_start + args.batch -
                                                      n_mined]
        qa, ma = pad([a for a, _ in batch], device)
        qb, mb = pad([b for _, b in batch], device)
        if autocast:
            with autocast:
                loss = info_nce(model(qa, ma), model(qb, mb))
        else:
            loss = info_nce(model(qa, ma), model(qb, mb))
        opt.zero_grad(set_to_none=True)
        loss.backward()
        torch.nn.utils.clip_grad_norm_(model.parameters(), 1.0)
        opt.step()
        step += 1
        losses.append(loss.item() if step % 10 == 0 else None)
        if step % args.log_every == 0:
            recent = [l for l in losses[-400:] if l is not None] or [loss.item()]
            print("context_trainer: step %d, %.0f s, loss %.3f (chance %.2f)" % (
                step, time.time() - t0, sum(recent) / len(recent), math.log(args.batch)),
                flush=True)
        if time.time() - last_save > args.save_minutes * 60:
            save(args, merges, meta_with(meta, step), model)
            last_save = time.time()
    save(args, merges, meta_with(meta, step), model)
    print("context_trainer: held-out pairs, right one first among %d: %.3f before, %.3f after" % (
        len(held), first_right, held_out_r1(model, held, device)), flush=True)
    print("context_trainer: %d steps of %d pairs in %.0f s; wrote %s" % (
        step, args.batch, time.time() - t0, args.out), flush=True)
    return 0


def save(args, merges, meta, model):
    write_tten(args.out, merges, meta, model.tensors())
    if args.split_to:
        with open(args.out, "rb") as f:
            data = f.read()
        part = 15_000_000
        for i in range(0, len(data), part):
            name = os.path.join(args.split_to, "part%02d" % (i // part))
            with open(name + ".tmp", "wb") as f:
                f.write(data[i : i + part])
            os.replace(name + ".tmp", name)


def held_out_r1(model, pairs, device):
    """How often a pair's second text is the nearest to its first among all the pairs' seconds."""
    with torch.no_grad():
        za = torch.cat([model(*pad([a for a, _ in pairs[i : i + 200]], device))
                        for i in range(0, len(pairs), 200)])
        zb = torch.cat([model(*pad([b for _, b in pairs[i : i + 200]], device))
                        for i in range(0, len(pairs), 200)])
        return (za @ zb.t()).argmax(1).eq(torch.arange(len(pairs), device=device)).float().mean().item()


def meta_with(meta, steps):
    """The metadata block with the steps done (meta_u32_0, as the C++ trainer keeps it)."""
    done = struct.unpack_from("<I", meta, 0)[0] + steps
    return struct.pack("<I", done) + meta[4:]


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--init")
    ap.add_argument("--corpus")
    ap.add_argument("--pairs")
    ap.add_argument("--out")
    ap.add_argument("--check")
    ap.add_argument("--lib")
    ap.add_argument("--device")
    ap.add_argument("--minutes", type=float, default=6.0)
    ap.add_argument("--steps", type=int, default=0, help="stop after this many (0: the minutes)")
    ap.add_argument("--save-minutes", type=float, default=2.0)
    ap.add_argument("--batch", type=int, default=256)
    ap.add_argument("--lr", type=float, default=3e-4)
    ap.add_argument("--emb-rate", type=float, default=0.3, help="the rows' rate, times --lr")
    ap.add_argument("--warmup", type=int, default=300)
    ap.add_argument("--pairs-share", type=float, default=0.4)
    ap.add_argument("--window-groups", type=int, default=200_000)
    ap.add_argument("--workers", type=int, default=max(1, (os.cpu_count() or 2) - 1))
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--log-every", type=int, default=200)
    ap.add_argument("--bag", action="store_true",
                    help="train the token rows alone, the file staying a bag of words")
    ap.add_argument("--split-to", help="also write OUT in parts of at most 15 MB to this folder")
    args = ap.parse_args()
    if args.check:
        if not args.lib:
            ap.error("--check needs --lib")
        return check(args)
    for need in ("init", "corpus", "pairs", "out"):
        if not getattr(args, need):
            ap.error("--%s is needed" % need)
    return train(args)


if __name__ == "__main__":
    sys.exit(main())
