/*
** known_item_bench.cpp -- how often each search mode puts the right file first, on any directory.
**
**   known_item_bench DIR [--weights W] [--files N] [--seed S] [--chunk C] [--overlap O]
**                        [--sweep] [--corpus FILE]
**
** Known-item queries written as people write them, each asked against the text with its own line
** taken out, so that no mode can find the query copied verbatim:
**   HTML      a reference page's one-line summary (the text after the dash in "NAME — summary"
**             right after the first heading), else the first heading without its section
**             number ("9.4. String Functions and Operators" asks "String Functions and
**             Operators"). Every line holding the query is removed from the page.
**   Markdown  the first "# " heading, removed.
**   Source    the first sentence of a function's doc comment ("//" lines right above a line
**             starting "func "), without the function's name when it opens the sentence
**             ("ReadFile reads the named file" asks "reads the named file"); the comment lines
**             that hold the sentence are removed. One function per file, drawn with the seed.
** Only queries of at least two words (four for source) count. The indexable files under DIR
** (names beginning with "." skipped) are sorted, shuffled with the seed (default 1) and the first
** N (default 300) that give a query are indexed; each is the answer to its own query.
**
** The files are ingested as the application ingests them (the engine's text extraction: HTML as
** readable text, the query's lines taken out of the markup first),
** with chunks of C bytes (default 800) overlapping by O (default 200), into an in-memory engine
** with the random encoder or the weights W. Each query runs in every mode with k = 10:
** semantic (mode 0, narrowed to ten files), semantic over every file (mode 5), keyword (3),
** text (1) and hybrid (4). R@10: share of queries with a chunk of their file among the ten
** results; MRR@10: mean of 1 / rank of the first such chunk (0 when none).
**
** --sweep adds rows for other fusions of the same two rankings (reciprocal rank fusion with
** other weights and depths), to tune the hybrid mode. --dump FILE writes, per query, the target
** file and both rankings 200 deep (chunk slot, file, score), for trying fusions offline.
** --corpus FILE writes the texts that would be indexed (queries taken out), each followed by a
** blank line as a training profile's corpus is, and stops: an encoder trained on it has seen the
** user's files but never the answers to the queries.
*/
#include "encoder/vec.h"
#include "index/hnsw.h"
#include "probe.h"
#include "search/search.h"
#include "text/files.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace
{

struct Item {
    std::string path;
    std::string text; /* the file's text with the query's lines removed */
    std::string query;
};

struct Tally {
    double hits = 0, rr = 0;
    void add(int rank)
    {
        if (rank > 0) {
            hits += 1;
            rr += 1.0 / rank;
        }
    }
};

/* The file's bytes as they are. */
std::string read_bytes(const std::string &path)
{
    std::string s;
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) {
        return s;
    }
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) {
        s.append(buf, n);
    }
    fclose(f);
    return s;
}

/* The file's text as the engine extracts it for indexing. */
std::string read_file(const std::string &path)
{
    ExtractedText t;
    std::string s;
    if (extract_file_text(path.c_str(), classify_file(path.c_str(), nullptr, 0, nullptr), 0, &t)
        == TRN_FILE_STATUS_INDEXABLE) {
        s.assign(t.text, t.length);
    }
    extracted_text_free(&t);
    return s;
}

std::string lower(std::string s)
{
    for (char &c : s) {
        if (c >= 'A' && c <= 'Z') {
            c = (char)(c + 32);
        }
    }
    return s;
}

std::vector<std::string> split_lines(const std::string &s)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while (at <= s.size()) {
        size_t nl = s.find('\n', at);
        if (nl == std::string::npos) {
            lines.push_back(s.substr(at));
            break;
        }
        lines.push_back(s.substr(at, nl - at));
        at = nl + 1;
    }
    return lines;
}

int count_words(const std::string &s)
{
    int n = 0;
    bool in = false;
    for (char c : s) {
        bool w = c != ' ' && c != '\t';
        n += (w && !in) ? 1 : 0;
        in = w;
    }
    return n;
}

/* Tags dropped, the common entities decoded, white space collapsed and trimmed. */
std::string strip_tags(const std::string &html)
{
    std::string out;
    bool tag = false;
    for (size_t i = 0; i < html.size(); i++) {
        char c = html[i];
        if (c == '<') {
            tag = true;
            continue;
        }
        if (c == '>') {
            tag = false;
            continue;
        }
        if (tag) {
            continue;
        }
        if (c == '&') {
            static const char *const names[][2] = {{"&amp;", "&"},
                                                   {"&lt;", "<"},
                                                   {"&gt;", ">"},
                                                   {"&quot;", "\""},
                                                   {"&#39;", "'"},
                                                   {"&nbsp;", " "}};
            bool done = false;
            for (const auto &e : names) {
                if (html.compare(i, strlen(e[0]), e[0]) == 0) {
                    out += e[1];
                    i += strlen(e[0]) - 1;
                    done = true;
                    break;
                }
            }
            if (done) {
                continue;
            }
        }
        if (c == '\xc2' && i + 1 < html.size() && html[i + 1] == '\xa0') {
            c = ' '; /* a no-break space */
            i++;
        }
        if (c == '\n' || c == '\t' || c == '\r') {
            c = ' ';
        }
        if (c == ' ' && (out.empty() || out.back() == ' ')) {
            continue;
        }
        out += c;
    }
    while (!out.empty() && out.back() == ' ') {
        out.pop_back();
    }
    return out;
}

/* "9.4.2. Name", "Chapter 9. Name", "Appendix A. Name", "F.3. Name" give "Name". */
std::string drop_numbering(std::string s)
{
    for (const char *word : {"Chapter ", "Appendix ", "Part "}) {
        if (s.rfind(word, 0) == 0) {
            s = s.substr(strlen(word));
        }
    }
    size_t i = 0;
    while (i < s.size() && (isalnum((unsigned char)s[i]) || s[i] == '.') && s[i] != ' ') {
        i++;
    }
    if (i > 0 && i < s.size() && s[i] == ' ' && s[i - 1] == '.') {
        s = s.substr(i + 1);
    }
    return s;
}

/* Removes every line that holds needle (ignoring ASCII case); returns how many went. */
int remove_lines_with(std::string *text, const std::string &needle)
{
    std::vector<std::string> lines = split_lines(*text);
    std::string ln = lower(needle), out;
    int removed = 0;
    for (size_t i = 0; i < lines.size(); i++) {
        if (lower(strip_tags(lines[i])).find(ln) != std::string::npos) {
            removed++;
            continue;
        }
        out += lines[i];
        if (i + 1 < lines.size()) {
            out += '\n';
        }
    }
    *text = out;
    return removed;
}

bool html_query(Item *it)
{
    const std::string &t = it->text;
    size_t h = std::string::npos;
    for (const char *open : {"<h1", "<h2"}) {
        size_t at = t.find(open);
        if (at != std::string::npos && (h == std::string::npos || at < h)) {
            h = at;
        }
    }
    if (h == std::string::npos) {
        return false;
    }
    size_t end = t.find("</h", h);
    if (end == std::string::npos) {
        return false;
    }
    std::string heading = strip_tags(t.substr(h, t.find('>', end) + 1 - h));
    /* A reference page: "<p>NAME — summary</p>" right after the heading. */
    size_t after = t.find('>', end) + 1;
    std::string next = strip_tags(t.substr(after, 400));
    std::string dash = heading + " \xe2\x80\x94 ";
    std::string query;
    if (next.rfind(dash, 0) == 0) {
        size_t p_end = t.find("</p>", after);
        std::string para =
            strip_tags(t.substr(after, p_end == std::string::npos ? 0 : p_end - after));
        query = para.size() > dash.size() ? para.substr(dash.size()) : "";
    } else {
        query = drop_numbering(heading);
    }
    if (count_words(query) < 2) {
        return false;
    }
    it->query = query;
    return remove_lines_with(&it->text, query) > 0;
}

bool markdown_query(Item *it)
{
    std::vector<std::string> lines = split_lines(it->text);
    for (const std::string &l : lines) {
        if (l.rfind("# ", 0) == 0 && count_words(l.substr(2)) >= 2) {
            it->query = l.substr(2);
            return remove_lines_with(&it->text, it->query) > 0;
        }
    }
    return false;
}

bool source_query(Item *it, std::mt19937 &rng)
{
    std::vector<std::string> lines = split_lines(it->text);
    struct Candidate {
        size_t first, last; /* comment lines holding the sentence */
        std::string sentence;
    };
    std::vector<Candidate> found;
    for (size_t i = 1; i < lines.size(); i++) {
        if (lines[i].rfind("func ", 0) != 0 || lines[i - 1].rfind("// ", 0) != 0) {
            continue;
        }
        size_t top = i - 1;
        while (top > 0 && lines[top - 1].rfind("//", 0) == 0) {
            top--;
        }
        /* The function's name: the word before "(" after "func " or "func (recv) ". */
        std::string decl = lines[i].substr(5);
        if (!decl.empty() && decl[0] == '(') {
            size_t close = decl.find(") ");
            decl = close == std::string::npos ? "" : decl.substr(close + 2);
        }
        std::string name = decl.substr(0, decl.find_first_of("([ "));
        std::string sentence;
        size_t last = top;
        for (size_t j = top; j < i; j++) {
            std::string body = lines[j].size() > 3 ? lines[j].substr(3) : "";
            sentence += (sentence.empty() ? "" : " ") + body;
            last = j;
            size_t stop = sentence.find(". ");
            if (stop != std::string::npos || (!sentence.empty() && sentence.back() == '.')) {
                sentence =
                    sentence.substr(0, stop == std::string::npos ? sentence.size() - 1 : stop);
                break;
            }
        }
        if (!name.empty() && sentence.rfind(name + " ", 0) == 0) {
            sentence = sentence.substr(name.size() + 1);
        }
        if (count_words(sentence) >= 4) {
            found.push_back({top, last, sentence});
        }
    }
    if (found.empty()) {
        return false;
    }
    const Candidate &c = found[rng() % found.size()];
    it->query = c.sentence;
    std::string out;
    for (size_t i = 0; i < lines.size(); i++) {
        if (i >= c.first && i <= c.last) {
            continue;
        }
        out += lines[i];
        if (i + 1 < lines.size()) {
            out += '\n';
        }
    }
    it->text = out;
    return true;
}

int rank_of(const TrnResult *r, int32_t n, const std::string &path)
{
    for (int32_t i = 0; i < n; i++) {
        if (r[i].file_path && path == r[i].file_path) {
            return i + 1;
        }
    }
    return 0;
}

int rank_of_slots(const TrnEngine *e, const uint32_t *slots, int32_t n, const std::string &path)
{
    for (int32_t i = 0; i < n && i < 10; i++) {
        const char *p = probe_chunk(e, slots[i]).file_path;
        if (p && path == p) {
            return i + 1;
        }
    }
    return 0;
}

void usage()
{
    fprintf(stderr,
            "usage: known_item_bench DIR [--weights W] [--files N] [--seed S] [--chunk C] "
            "[--overlap O] [--sweep] [--dump FILE] [--corpus FILE]\n");
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        usage();
        return 2;
    }
    std::string dir = argv[1], weights;
    int files = 300, chunk = 800, overlap = 200;
    unsigned seed = 1;
    bool sweep = false;
    std::string dump_path, corpus_path;
    for (int i = 2; i < argc; i++) {
        std::string a = argv[i];
        bool has = i + 1 < argc;
        if (a == "--weights" && has) {
            weights = argv[++i];
        } else if (a == "--files" && has) {
            files = atoi(argv[++i]);
        } else if (a == "--seed" && has) {
            seed = (unsigned)atoi(argv[++i]);
        } else if (a == "--chunk" && has) {
            chunk = atoi(argv[++i]);
        } else if (a == "--overlap" && has) {
            overlap = atoi(argv[++i]);
        } else if (a == "--dump" && has) {
            dump_path = argv[++i];
        } else if (a == "--corpus" && has) {
            corpus_path = argv[++i];
        } else if (a == "--sweep") {
            sweep = true;
        } else {
            usage();
            return 2;
        }
    }
    std::vector<std::string> paths;
    std::error_code ec;
    for (auto it = std::filesystem::recursive_directory_iterator(dir, ec);
         !ec && it != std::filesystem::recursive_directory_iterator();
         it.increment(ec)) {
        std::string name = it->path().filename().string();
        if (!name.empty() && name[0] == '.') {
            if (it->is_directory()) {
                it.disable_recursion_pending();
            }
            continue;
        }
        if (it->is_regular_file()) {
            paths.push_back(it->path().string());
        }
    }
    if (paths.empty()) {
        fprintf(stderr, "known_item_bench: no files under %s\n", dir.c_str());
        return 1;
    }
    std::sort(paths.begin(), paths.end());
    std::mt19937 rng(seed);
    std::shuffle(paths.begin(), paths.end(), rng);

    std::vector<Item> items;
    for (const std::string &p : paths) {
        if ((int)items.size() >= files) {
            break;
        }
        TrnFileType type = trn_detect_file_type(p.c_str());
        if (!trn_is_indexable(type) || type == TRN_FILE_TYPE_PDF) {
            continue;
        }
        /* An HTML page's query comes from its markup, which is then read as the engine reads it. */
        Item it{p, type == TRN_FILE_TYPE_HTML ? read_bytes(p) : read_file(p), ""};
        bool ok = type == TRN_FILE_TYPE_HTML       ? html_query(&it)
                  : type == TRN_FILE_TYPE_MARKDOWN ? markdown_query(&it)
                  : type == TRN_FILE_TYPE_SOURCE   ? source_query(&it, rng)
                                                   : false;
        if (ok && type == TRN_FILE_TYPE_HTML) {
            size_t n = 0;
            char *text = html_to_text(it.text.data(), it.text.size(), &n);
            it.text.assign(text, n);
            free(text);
        }
        if (ok && it.text.size() >= 11) {
            items.push_back(std::move(it));
        }
    }
    if (items.empty()) {
        fprintf(stderr, "known_item_bench: no file under %s gives a query\n", dir.c_str());
        return 1;
    }
    if (!corpus_path.empty()) {
        FILE *out = fopen(corpus_path.c_str(), "wb");
        bool ok = out != nullptr;
        for (size_t i = 0; ok && i < items.size(); i++) {
            ok = fwrite(items[i].text.data(), 1, items[i].text.size(), out) == items[i].text.size()
                 && fwrite("\n\n", 1, 2, out) == 2;
        }
        if (out && fclose(out) != 0) {
            ok = false;
        }
        if (!ok) {
            fprintf(stderr, "known_item_bench: cannot write %s\n", corpus_path.c_str());
            return 1;
        }
        printf("wrote %zu files' text to %s\n", items.size(), corpus_path.c_str());
        return 0;
    }

    TrnConfig cfg = {nullptr, weights.empty() ? nullptr : weights.c_str(), 0, 0, 0, 0};
    TrnEngine *e = trn_open(&cfg);
    if (!weights.empty() && !probe_weights_loaded(e)) {
        fprintf(stderr, "known_item_bench: cannot load weights %s\n", weights.c_str());
        trn_close(e);
        return 1;
    }
    auto t0 = std::chrono::steady_clock::now();
    size_t bytes = 0;
    for (size_t i = 0; i < items.size(); i++) {
        trn_ingest_text(e, items[i].path.c_str(), items[i].text.c_str(), chunk, overlap);
        bytes += items[i].text.size();
        if ((i + 1) % 50 == 0 || i + 1 == items.size()) {
            double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
            fprintf(stderr,
                    "\rindexing: %zu/%zu files, %zu chunks, %.0f s, about %.0f s left   ",
                    i + 1,
                    items.size(),
                    (size_t)trn_stats(e).chunk_count,
                    s,
                    s / (double)(i + 1) * (double)(items.size() - i - 1));
        }
    }
    fprintf(stderr, "\n");
    trn_build_doc_index(e);

    struct Mode {
        const char *name;
        int32_t mode;
    };
    const Mode modes[] = {{"semantic (mode 0, ten files)", TRN_SEARCH_SEMANTIC},
                          {"semantic, every file (mode 5)", TRN_SEARCH_SEMANTIC_ALL},
                          {"keyword (mode 3)", TRN_SEARCH_KEYWORD},
                          {"text (mode 1)", TRN_SEARCH_TEXT},
                          {"hybrid (mode 4)", TRN_SEARCH_HYBRID}};
    constexpr int n_modes = sizeof modes / sizeof modes[0];
    Tally tally[n_modes];
    double seconds[n_modes] = {0};

    /* Fusions tried by --sweep: semantic weight against keyword weight 1, candidate depth. */
    struct Variant {
        float weight;
        int32_t depth;
    };
    const Variant variants[] = {{0.25f, 100},
                                {0.5f, 100},
                                {0.75f, 100},
                                {1.0f, 100},
                                {1.5f, 100},
                                {1.0f, 30},
                                {1.0f, 50},
                                {1.0f, 200},
                                {0.5f, 200}};
    constexpr int n_variants = sizeof variants / sizeof variants[0];
    Tally swept[n_variants];

    FILE *dump = dump_path.empty() ? nullptr : fopen(dump_path.c_str(), "w");
    TrnResult results[10];
    for (const Item &it : items) {
        for (int m = 0; m < n_modes; m++) {
            auto s0 = std::chrono::steady_clock::now();
            int32_t n = trn_search(e, it.query.c_str(), modes[m].mode, 10, results);
            seconds[m] +=
                std::chrono::duration<double>(std::chrono::steady_clock::now() - s0).count();
            tally[m].add(rank_of(results, n, it.path));
        }
        if (!sweep && !dump) {
            continue;
        }
        float q[TRN_ENCODER_DIM];
        trn_encoder_embed_text(probe_encoder(e), it.query.c_str(), q);
        vec_normalize(q, TRN_ENCODER_DIM);
        std::vector<uint32_t> sem(200), kw(200), fused(10);
        std::vector<float> s1(200), s2(200), s3(10);
        if (dump) {
            int32_t ns = hnsw_query_width(e, q, 200, 200, sem.data(), s1.data());
            int32_t nk = lex_search(e, it.query.c_str(), 200, kw.data(), s2.data());
            fprintf(dump, "Q\t%s\nK", it.path.c_str());
            for (int32_t j = 0; j < nk; j++) {
                const char *f = probe_chunk(e, kw[j]).file_path;
                fprintf(dump, "\t%u %s %.5f", kw[j], f ? f : "-", s2[j]);
            }
            fprintf(dump, "\nS");
            for (int32_t j = 0; j < ns; j++) {
                const char *f = probe_chunk(e, sem[j]).file_path;
                fprintf(dump, "\t%u %s %.5f", sem[j], f ? f : "-", s1[j]);
            }
            fprintf(dump, "\n");
        }
        if (!sweep) {
            continue;
        }
        for (int v = 0; v < n_variants; v++) {
            int32_t d = variants[v].depth;
            int32_t ns =
                hnsw_query_width(e, q, d, std::max(d, probe_ef_search(e)), sem.data(), s1.data());
            int32_t nk = lex_search(e, it.query.c_str(), d, kw.data(), s2.data());
            int32_t nf = fuse_rankings(kw.data(),
                                       nk,
                                       1.0f,
                                       sem.data(),
                                       ns,
                                       variants[v].weight,
                                       10,
                                       fused.data(),
                                       s3.data());
            swept[v].add(rank_of_slots(e, fused.data(), nf, it.path));
        }
    }

    const double nq = (double)items.size();
    printf("\nKnown-item search over %s: %zu files (%.1f MB, %zu chunks of %d bytes), %zu queries, "
           "encoder %s\n\n",
           dir.c_str(),
           items.size(),
           (double)bytes / 1e6,
           (size_t)trn_stats(e).chunk_count,
           chunk,
           items.size(),
           weights.empty() ? "random (seed 42)" : weights.c_str());
    printf("| mode | R@10 | MRR@10 | ms/query |\n|---|---:|---:|---:|\n");
    for (int m = 0; m < n_modes; m++) {
        printf("| %s | %.3f | %.3f | %.2f |\n",
               modes[m].name,
               tally[m].hits / nq,
               tally[m].rr / nq,
               1000.0 * seconds[m] / nq);
    }
    if (sweep) {
        printf("\n| fusion (keyword weight 1) | R@10 | MRR@10 |\n|---|---:|---:|\n");
        for (int v = 0; v < n_variants; v++) {
            printf("| RRF, semantic weight %.2f, depth %d | %.3f | %.3f |\n",
                   variants[v].weight,
                   variants[v].depth,
                   swept[v].hits / nq,
                   swept[v].rr / nq);
        }
    }
    printf("\nExample queries:\n");
    for (size_t i = 0; i < items.size() && i < 5; i++) {
        printf("  \"%s\" -> %s\n", items[i].query.c_str(), items[i].path.c_str());
    }
    if (dump) {
        fclose(dump);
    }
    trn_close(e);
    return 0;
}
