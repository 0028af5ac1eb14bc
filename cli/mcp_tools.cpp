/*
** mcp_tools.cpp -- the tools of mcp_tools.h. Every path is resolved (symbolic links included)
** and refused unless it lies in a served folder, outside its index directory.
*/
#include "mcp_tools.h"

#include "json.h"
#include "text/files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <sys/stat.h>

const char TOOLS_JSON[] = R"json([
{"name": "search",
 "title": "Search indexed folders",
 "description": "Searches the user's indexed folders by meaning and by words, as Tarnwick's search bar does, and returns the best passages with their file, line, snippet and score. Use it to find documents, notes or code about a topic even when they do not contain the exact words. The query may hold the search bar's narrowing words: \"exact phrase\", -word, type:pdf,docx, ext:md, in:sub/folder, modified:>=2024-01-01.",
 "inputSchema": {"type": "object",
  "properties": {
   "query": {"type": "string", "description": "What to look for, in natural language or keywords."},
   "folder": {"type": "string", "description": "A served folder, or a folder inside one, to search; all served folders when absent (see list_folders)."},
   "mode": {"type": "string", "enum": ["hybrid", "semantic", "keyword", "text", "regex"], "default": "hybrid", "description": "hybrid: words and meaning; semantic: meaning only; keyword: ranked words; text: exact substring; regex: POSIX extended expression, ignoring case."},
   "k": {"type": "integer", "minimum": 1, "maximum": 64, "default": 10, "description": "How many results."},
   "type": {"type": "array", "items": {"type": "string", "enum": ["pdf", "docx", "odt", "epub", "html", "markdown", "text", "source"]}, "description": "Only files of these kinds."},
   "in": {"type": "string", "description": "Only files below this folder, relative to the searched folder."},
   "modified": {"type": "string", "description": "Only files modified then: >=2024-01-01, <2024-06-01 or 2024-01-01..2024-06-30."}
  },
  "required": ["query"]},
 "outputSchema": {"type": "object",
  "properties": {
   "results": {"type": "array", "items": {"type": "object",
    "properties": {"folder": {"type": "string"}, "path": {"type": "string"}, "line": {"type": "integer"},
     "snippet": {"type": "string"}, "score": {"type": "number"}, "fileType": {"type": "string"},
     "page": {"type": "integer", "description": "PDF: the page of the match."},
     "pageLine": {"type": "integer", "description": "PDF: the line of the match on its page."},
     "headingPath": {"type": "string", "description": "DOCX, ODT, EPUB: the headings above the match, outermost first."}},
    "required": ["folder", "path", "line", "snippet", "score", "fileType"]}},
   "notSearched": {"type": "array", "items": {"type": "object",
    "properties": {"folder": {"type": "string"}, "reason": {"type": "string"}},
    "required": ["folder", "reason"]}}
  },
  "required": ["results", "notSearched"]},
 "annotations": {"readOnlyHint": true, "openWorldHint": false}},
{"name": "read_file",
 "title": "Read a file of an indexed folder",
 "description": "Returns the text of a file inside a served folder, as the index reads it (the text of PDF, HTML, DOCX, ODT and EPUB files is extracted), whole or a range of lines. Line numbers are those search results give. Paths outside the served folders are refused.",
 "inputSchema": {"type": "object",
  "properties": {
   "path": {"type": "string", "description": "Absolute path, or relative to a served folder."},
   "startLine": {"type": "integer", "minimum": 1, "description": "First line to return (1-based); 1 when absent."},
   "endLine": {"type": "integer", "minimum": 1, "description": "Last line to return; the file's last when absent."}
  },
  "required": ["path"]},
 "outputSchema": {"type": "object",
  "properties": {"path": {"type": "string"}, "startLine": {"type": "integer"}, "endLine": {"type": "integer"},
   "lineCount": {"type": "integer"}, "truncated": {"type": "boolean"}, "text": {"type": "string"}},
  "required": ["path", "startLine", "endLine", "lineCount", "truncated", "text"]},
 "annotations": {"readOnlyHint": true, "openWorldHint": false}},
{"name": "list_folders",
 "title": "List the served folders",
 "description": "Lists the folders this server searches, each with its counts of indexed files and chunks and whether its index is up to date with the files on disk (new, changed and removed files that the index does not reflect yet).",
 "inputSchema": {"type": "object", "properties": {}},
 "outputSchema": {"type": "object",
  "properties": {"folders": {"type": "array", "items": {"type": "object",
   "properties": {"path": {"type": "string"}, "indexed": {"type": "boolean"},
    "files": {"type": "integer"}, "chunks": {"type": "integer"}, "upToDate": {"type": "boolean"},
    "newFiles": {"type": "integer"}, "changedFiles": {"type": "integer"}, "removedFiles": {"type": "integer"}},
   "required": ["path", "indexed", "files", "chunks", "upToDate", "newFiles", "changedFiles", "removedFiles"]}}},
  "required": ["folders"]},
 "annotations": {"readOnlyHint": true, "openWorldHint": false}}
])json";

namespace
{

constexpr int32_t RESULTS_MAX = 64; // trn_search's limit

// One hit of one folder, its strings copied out of the engine.
struct Hit {
    size_t folder;
    std::string path;
    int32_t line;
    std::string snippet;
    float score;
    uint32_t type;
    int32_t page; // PDF: the page and the line on it; 0 otherwise
    int32_t page_line;
    std::string heading; // DOCX, ODT, EPUB: the headings above the match; "" when none
};

bool under(const std::string &path, const std::string &root)
{
    if (root == "/") {
        return true;
    }
    return path == root
           || (path.size() > root.size() && path.compare(0, root.size(), root) == 0
               && path[root.size()] == '/');
}

const char *type_word(uint32_t type)
{
    switch (type) {
    case TRN_FILE_TYPE_PDF:
        return "pdf";
    case TRN_FILE_TYPE_HTML:
        return "html";
    case TRN_FILE_TYPE_SOURCE:
        return "source";
    case TRN_FILE_TYPE_DOCX:
        return "docx";
    case TRN_FILE_TYPE_MARKDOWN:
        return "markdown";
    case TRN_FILE_TYPE_ODT:
        return "odt";
    case TRN_FILE_TYPE_EPUB:
        return "epub";
    default:
        return "text";
    }
}

const JsonValue *argument(const JsonValue &args, const char *name, JsonValue::Kind kind,
                          const char *kind_name)
{
    const JsonValue *v = args.get(name);
    if (v != nullptr && v->kind != kind) {
        throw ToolError(std::string(name) + " must be " + kind_name);
    }
    return v;
}

std::string string_argument(const JsonValue &args, const char *name)
{
    const JsonValue *v = argument(args, name, JsonValue::Kind::String, "a string");
    return v != nullptr ? v->text : std::string();
}

int64_t integer_argument(const JsonValue &args, const char *name, int64_t absent, int64_t low,
                         int64_t high)
{
    const JsonValue *v = argument(args, name, JsonValue::Kind::Number, "a whole number");
    if (v == nullptr) {
        return absent;
    }
    if (v->number != static_cast<double>(static_cast<int64_t>(v->number)) || v->number < low
        || v->number > high) {
        throw ToolError(std::string(name) + " must be a whole number from " + std::to_string(low)
                        + " to " + std::to_string(high));
    }
    return static_cast<int64_t>(v->number);
}

// The search bar's narrowing words for the filter arguments, each with a leading space.
std::string filter_words(const JsonValue &args)
{
    std::string words;
    const JsonValue *types = argument(args, "type", JsonValue::Kind::Array, "an array");
    if (types != nullptr && !types->items.empty()) {
        std::string list;
        for (const JsonValue &t : types->items) {
            if (!t.is_string() || t.text.empty()
                || t.text.find_first_of(" \t\",") != std::string::npos) {
                throw ToolError("type must list kinds of file such as pdf or markdown");
            }
            list += (list.empty() ? "" : ",") + t.text;
        }
        words += " type:" + list;
    }
    const std::string in = string_argument(args, "in");
    if (!in.empty()) {
        std::string clean;
        for (char c : in) {
            if (c != '"') {
                clean += c;
            }
        }
        words += " in:\"" + clean + "\"";
    }
    const std::string modified = string_argument(args, "modified");
    if (!modified.empty()) {
        if (modified.find_first_of(" \t\"") != std::string::npos) {
            throw ToolError("modified must be a date or range such as >=2024-01-01");
        }
        words += " modified:" + modified;
    }
    return words;
}

} // namespace

void log_line(const std::string &text)
{
    std::fprintf(stderr, "tarnwick: mcp: %s\n", display_text(text, false).c_str());
}

std::string file_text(const std::string &path)
{
    TrnFileType type = trn_detect_file_type(path.c_str());
    ExtractedText extracted{};
    TrnFileStatus status = extract_file_text(path.c_str(), type, 0, &extracted);
    std::string text;
    if (status == TRN_FILE_STATUS_INDEXABLE) {
        text.assign(extracted.text, extracted.length);
    }
    extracted_text_free(&extracted);
    if (status == TRN_FILE_STATUS_TOO_SHORT) {
        return {}; // a few characters at most: nothing to index, nothing worth returning
    }
    if (status != TRN_FILE_STATUS_INDEXABLE) {
        throw ToolError(path + " has no text to read (" + trn_file_status_name(status) + ")");
    }
    return text;
}

std::string McpTools::resolve_inside(const std::string &path) const
{
    if (path.empty() || path.find('\0') != std::string::npos) {
        throw ToolError("no path given");
    }
    std::vector<std::string> candidates;
    if (path[0] == '/') {
        candidates.push_back(path);
    } else {
        for (const Folder &f : m_folders) {
            candidates.push_back(join(f.root, path));
        }
    }
    for (const std::string &candidate : candidates) {
        char *resolved = realpath(candidate.c_str(), nullptr);
        if (resolved == nullptr) {
            continue;
        }
        std::string real(resolved);
        free(resolved);
        for (const Folder &f : m_folders) {
            if (under(real, f.root) && !under(real, join(f.root, ".tarnwick"))) {
                return real;
            }
        }
        throw ToolError(path + " is outside the served folders");
    }
    throw ToolError(path + " does not exist in the served folders");
}

const Folder *McpTools::folder_of(const std::string &real) const
{
    const Folder *best = nullptr;
    for (const Folder &f : m_folders) {
        if (under(real, f.root) && (best == nullptr || f.root.size() > best->root.size())) {
            best = &f;
        }
    }
    return best;
}

TrnEngine *McpTools::engine_of(Folder &f)
{
    if (!f.engine) {
        if (!has_index(f.root)) {
            throw ToolError(f.root
                            + " is not indexed yet (open it in Tarnwick, or run "
                              "tarnwick-cli index "
                            + f.root + ")");
        }
        const std::string index_dir = index_dir_of(f.root);
        TrnConfig cfg{};
        cfg.index_dir = index_dir.c_str();
        cfg.weights_path = f.weights.empty() ? nullptr : f.weights.c_str();
        TrnEngine *e = trn_open_ex(&cfg, 0, nullptr);
        if (e == nullptr) {
            throw ToolError(trn_last_error(nullptr));
        }
        f.engine.reset(e);
    }
    return f.engine.get();
}

void McpTools::prepare_encoder(Folder &f)
{
    // Without it the engine would fall back to the random encoder on weights it cannot read.
    if (!f.encoder_ready) {
        if (!trn_prepare_encoder(f.engine.get())) {
            throw ToolError("cannot load encoder weights from " + f.weights);
        }
        f.encoder_ready = true;
    }
}

JsonValue McpTools::search(const JsonValue &args, std::string *text)
{
    std::string query = string_argument(args, "query");
    if (query.find_first_not_of(" \t\r\n") == std::string::npos) {
        throw ToolError("query must not be empty");
    }
    const std::string mode_name =
        args.get("mode") != nullptr ? string_argument(args, "mode") : "hybrid";
    const int32_t mode = search_mode_named(mode_name);
    if (mode < 0) {
        throw ToolError("mode must be hybrid, semantic, keyword, text or regex");
    }
    const bool by_meaning =
        mode == TRN_SEARCH_SEMANTIC || mode == TRN_SEARCH_HYBRID || mode == TRN_SEARCH_SEMANTIC_ALL;
    const int32_t k = static_cast<int32_t>(integer_argument(args, "k", 10, 1, RESULTS_MAX));
    query += filter_words(args);
    char reason[256];
    if (!trn_check_query(query.c_str(), mode, reason, sizeof reason)) {
        throw ToolError(reason);
    }

    // Which folders: one (a served folder or a folder inside one), or all.
    std::string within;
    std::vector<size_t> scope;
    if (args.get("folder") != nullptr) {
        within = resolve_inside(string_argument(args, "folder"));
        struct stat st;
        if (stat(within.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            throw ToolError(within + " is not a folder");
        }
        scope.push_back(static_cast<size_t>(folder_of(within) - m_folders.data()));
    } else {
        for (size_t i = 0; i < m_folders.size(); i++) {
            scope.push_back(i);
        }
    }

    JsonValue not_searched = JsonValue::array();
    std::vector<TrnEngine *> engines;
    std::vector<size_t> engine_folder; // the folder of each engine
    for (size_t fi : scope) {
        try {
            TrnEngine *e = engine_of(m_folders[fi]);
            if (by_meaning) {
                prepare_encoder(m_folders[fi]);
            }
            engines.push_back(e);
            engine_folder.push_back(fi);
        } catch (const ToolError &err) {
            not_searched.push(JsonValue::object()
                                  .set("folder", JsonValue::of_string(m_folders[fi].root))
                                  .set("reason", JsonValue::of_string(err.message)));
        }
    }
    // The folders are searched as one index, so scores compare across them. A folder inside
    // a served one is searched as the served one, its hits kept when they lie below it: all
    // the engine gives is asked for, so that k of them can remain.
    const bool narrowed = !within.empty() && within != m_folders[scope[0]].root;
    std::vector<TrnResult> results(RESULTS_MAX);
    std::vector<int32_t> origins(RESULTS_MAX);
    int32_t n = engines.empty() ? 0
                                : trn_search_many(engines.data(),
                                                  static_cast<int32_t>(engines.size()),
                                                  query.c_str(),
                                                  mode,
                                                  narrowed ? RESULTS_MAX : k,
                                                  0,
                                                  results.data(),
                                                  origins.data());
    std::vector<Hit> hits;
    for (int32_t i = 0; i < n && hits.size() < static_cast<size_t>(k); i++) {
        const TrnResult &r = results[static_cast<size_t>(i)];
        const std::string path = r.file_path != nullptr ? r.file_path : "";
        if (narrowed && !under(path, within)) {
            continue;
        }
        hits.push_back({engine_folder[static_cast<size_t>(origins[static_cast<size_t>(i)])],
                        path,
                        r.line_number,
                        r.snippet != nullptr ? r.snippet : "",
                        r.score,
                        r.file_type,
                        r.page,
                        r.page_line,
                        r.heading_path != nullptr ? r.heading_path : ""});
    }

    JsonValue list = JsonValue::array();
    *text = hits.empty() ? "No results.\n" : "";
    int number = 1;
    for (const Hit &h : hits) {
        JsonValue item = JsonValue::object()
                             .set("folder", JsonValue::of_string(m_folders[h.folder].root))
                             .set("path", JsonValue::of_string(h.path))
                             .set("line", JsonValue::of_number(h.line))
                             .set("snippet", JsonValue::of_string(h.snippet))
                             .set("score", JsonValue::of_number(h.score))
                             .set("fileType", JsonValue::of_string(type_word(h.type)));
        char head[96];
        std::snprintf(head, sizeof head, ":%d (score %.4f)\n", h.line, h.score);
        if (h.page > 0) {
            item.set("page", JsonValue::of_number(h.page))
                .set("pageLine", JsonValue::of_number(h.page_line));
            std::snprintf(
                head, sizeof head, " p. %d, line %d (score %.4f)\n", h.page, h.page_line, h.score);
        }
        if (!h.heading.empty()) {
            item.set("headingPath", JsonValue::of_string(h.heading));
        }
        list.push(std::move(item));
        *text += std::to_string(number++) + ". " + h.path + head;
        if (!h.heading.empty()) {
            *text += "[" + h.heading + "]\n";
        }
        *text += h.snippet + "\n\n";
    }
    for (const JsonValue &skipped : not_searched.items) {
        *text += "Not searched: " + skipped.get("reason")->text + "\n";
    }
    return JsonValue::object()
        .set("results", std::move(list))
        .set("notSearched", std::move(not_searched));
}

JsonValue McpTools::read_file(const JsonValue &args, std::string *text)
{
    const std::string path = resolve_inside(string_argument(args, "path"));
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        throw ToolError(path + " is not a file");
    }
    const int64_t first = integer_argument(args, "startLine", 1, 1, INT32_MAX);
    const int64_t last = integer_argument(args, "endLine", INT32_MAX, 1, INT32_MAX);
    if (last < first) {
        throw ToolError("endLine comes before startLine");
    }
    const std::string whole = file_text(path);
    // Lines first..last, up to READ_MAX bytes of them.
    int64_t line = 1;
    int64_t end_line = first - 1;
    size_t pos = 0;
    bool truncated = false;
    std::string out;
    while (pos < whole.size()) {
        size_t nl = whole.find('\n', pos);
        size_t end = nl == std::string::npos ? whole.size() : nl + 1;
        if (line >= first && line <= last) {
            if (out.size() + (end - pos) > READ_MAX) {
                truncated = true;
            } else {
                out.append(whole, pos, end - pos);
                end_line = line;
            }
        }
        pos = end;
        line++;
    }
    const int64_t line_count = whole.empty() ? 0 : line - 1;
    if (first > line_count && line_count > 0) {
        throw ToolError(path + " has only " + std::to_string(line_count) + " lines");
    }
    *text = out;
    if (truncated) {
        *text += "\n[truncated after line " + std::to_string(end_line)
                 + "; ask for the lines after it]\n";
    }
    return JsonValue::object()
        .set("path", JsonValue::of_string(path))
        .set("startLine", JsonValue::of_number(static_cast<double>(first)))
        .set("endLine", JsonValue::of_number(static_cast<double>(end_line)))
        .set("lineCount", JsonValue::of_number(static_cast<double>(line_count)))
        .set("truncated", JsonValue::of_bool(truncated))
        .set("text", JsonValue::of_string(out));
}

JsonValue McpTools::list_folders(std::string *text)
{
    JsonValue list = JsonValue::array();
    std::vector<const char *> extension_ptrs;
    std::vector<const char *> exclude_ptrs;
    const TrnWalkOptions opts = m_walk.view(&extension_ptrs, &exclude_ptrs);
    for (Folder &f : m_folders) {
        bool indexed = has_index(f.root);
        TrnStats st{};
        int32_t fresh = 0, changed = 0, removed = 0;
        if (indexed) {
            TrnEngine *e = engine_of(f);
            FileListPtr files(trn_list_dir_files_ex(e, f.root.c_str(), &opts));
            st = trn_stats(e);
            uint32_t listed_indexed = 0;
            for (int32_t i = 0; i < files->count; i++) {
                const TrnFileInfo &info = files->entries[i];
                listed_indexed += info.indexed ? 1 : 0;
                changed += info.changed ? 1 : 0;
                fresh += !info.indexed && !info.is_dir && info.status == TRN_FILE_STATUS_INDEXABLE
                             ? 1
                             : 0;
            }
            // Files the index holds that the walk no longer finds.
            removed = st.file_count > listed_indexed
                          ? static_cast<int32_t>(st.file_count - listed_indexed)
                          : 0;
        }
        const bool up_to_date = indexed && fresh == 0 && changed == 0 && removed == 0;
        const uint32_t live = st.chunk_count - std::min(st.deleted_count, st.chunk_count);
        list.push(JsonValue::object()
                      .set("path", JsonValue::of_string(f.root))
                      .set("indexed", JsonValue::of_bool(indexed))
                      .set("files", JsonValue::of_number(st.file_count))
                      .set("chunks", JsonValue::of_number(live))
                      .set("upToDate", JsonValue::of_bool(up_to_date))
                      .set("newFiles", JsonValue::of_number(fresh))
                      .set("changedFiles", JsonValue::of_number(changed))
                      .set("removedFiles", JsonValue::of_number(removed)));
        *text += f.root + ": ";
        if (!indexed) {
            *text += "not indexed\n";
            continue;
        }
        *text += std::to_string(st.file_count) + " files, " + std::to_string(live) + " chunks, ";
        *text += up_to_date ? "up to date\n"
                            : "not up to date (" + std::to_string(fresh) + " new, "
                                  + std::to_string(changed) + " changed, " + std::to_string(removed)
                                  + " removed)\n";
    }
    return JsonValue::object().set("folders", std::move(list));
}
