/*
** known_item_task.h -- reading the task file that "known_item_bench DIR --task TASK" writes (its
** files, its queries with their answers and whether each is in the vocabulary-mismatch slice),
** for the benchmarks that score encoders on it in seconds.
*/
#ifndef TRN_BENCH_KNOWN_ITEM_TASK_H
#define TRN_BENCH_KNOWN_ITEM_TASK_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace bench
{

constexpr int CHUNK = 800;
constexpr int OVERLAP = 200;

struct File {
    std::string path, text;
};

struct Query {
    std::string text;
    std::vector<int> answers; /* file numbers */
    bool mismatch = false;
};

inline std::vector<std::string> split_tabs(const std::string &line)
{
    std::vector<std::string> out;
    size_t at = 0;
    for (;;) {
        const size_t tab = line.find('\t', at);
        out.push_back(line.substr(at, tab == std::string::npos ? std::string::npos : tab - at));
        if (tab == std::string::npos) {
            return out;
        }
        at = tab + 1;
    }
}

inline bool read_task(const char *path, std::vector<File> *files, std::vector<Query> *queries)
{
    FILE *f = fopen(path, "rb");
    if (!f) {
        return false;
    }
    std::map<std::string, int> number;
    static char line[1 << 20];
    while (fgets(line, sizeof line, f)) {
        std::string l(line, strcspn(line, "\n"));
        if (l.rfind("F ", 0) == 0) {
            File file{l.substr(2), ""};
            if (!fgets(line, sizeof line, f)) {
                break;
            }
            const size_t len = strtoull(line, nullptr, 10);
            file.text.resize(len);
            if (fread(file.text.data(), 1, len, f) != len) {
                break;
            }
            number[file.path] = (int)files->size();
            files->push_back(std::move(file));
        } else if (l.rfind("Q ", 0) == 0) {
            const std::vector<std::string> fields = split_tabs(l.substr(2));
            if (fields.size() < 3) {
                continue;
            }
            Query q;
            q.mismatch = fields[0] == "1";
            q.text = fields[1];
            for (size_t i = 2; i < fields.size(); i++) {
                auto it = number.find(fields[i]);
                if (it != number.end()) {
                    q.answers.push_back(it->second);
                }
            }
            queries->push_back(std::move(q));
        }
    }
    fclose(f);
    return !files->empty() && !queries->empty();
}

/* The engine's cuts: windows of min(length, CHUNK) bytes every (window - OVERLAP) bytes. */
inline std::vector<std::string> cut_chunks(const std::string &text)
{
    std::vector<std::string> out;
    const int64_t length = (int64_t)text.size();
    if (length < 1) {
        return out;
    }
    const int64_t chunk = std::min<int64_t>(length, CHUNK);
    const int64_t step = std::max<int64_t>(1, chunk - OVERLAP);
    for (int64_t pos = 0;; pos += step) {
        std::string c = text.substr((size_t)pos, (size_t)chunk);
        out.push_back(c.c_str()); /* the engine reads a chunk up to its first NUL */
        if (pos + chunk + step > length) {
            break;
        }
    }
    return out;
}

/* Every file's chunks in file order, with the number of the file each one comes from. */
inline void cut_task_chunks(const std::vector<File> &files, std::vector<std::string> *chunks,
                            std::vector<int> *chunk_file)
{
    for (size_t f = 0; f < files.size(); f++) {
        for (std::string &c : cut_chunks(files[f].text)) {
            chunks->push_back(std::move(c));
            chunk_file->push_back((int)f);
        }
    }
}

/* Hits in the first ten and the reciprocal ranks, over the queries added. */
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

} // namespace bench

#endif
