/*
** ignore_test.cpp -- what the walk excludes agrees with git's own answers (git check-ignore) on a
** tree of tricky patterns; ".tarnwickignore" reads the same; the walk's verdicts for the rest.
*/
#include "store_fixtures.h"
#include "text/files.h"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace
{

/* The ignore files, by directory, and every path of the tree (a trailing "/" makes a directory). */
const std::map<std::string, std::string> IGNORE_FILES = {
    {"",
     "# comments and blank lines are skipped\n"
     "\n"
     "*.log\n"
     "!keep.log\n"
     "/anchored.txt\n"
     "out/\n"
     "doc/**/*.pdf\n"
     "**/deep\n"
     "a/**/z.txt\n"
     "\\#hash.txt\n"
     "\\!bang.txt\n"
     "trailing\\ \n"
     "spaces.txt   \n"
     "*.[oa]\n"
     "data/*\n"
     "!data/keep/\n"
     "x?y.txt\n"
     "foo/bar\n"
     "logs/**\n"
     "[[:digit:]]*.tmp\n"},
    {"sub",
     "!*.log\n"
     "*.tmp\n"
     "/local.txt\n"
     "nested/\n"},
    {"sub/inner", "!important.tmp\n"},
};

const char *const TREE[] = {
    "a.log",
    "keep.log",
    "sub/a.log",
    "sub/b.tmp",
    "sub/inner/important.tmp",
    "sub/inner/other.tmp",
    "anchored.txt",
    "sub/anchored.txt",
    "out/o.txt",
    "sub/out",
    "doc/x.pdf",
    "doc/a/b/y.pdf",
    "doc/y.txt",
    "deep",
    "p/deep/f.txt",
    "a/z.txt",
    "a/b/c/z.txt",
    "b/a/z.txt",
    "#hash.txt",
    "!bang.txt",
    "trailing ",
    "trailing",
    "spaces.txt",
    "m.o",
    "m.a",
    "m.c",
    "data/f.txt",
    "data/keep/f.txt",
    "xay.txt",
    "xy.txt",
    "foo/bar",
    "sub/foo/bar",
    "local.txt",
    "sub/local.txt",
    "sub/x/nested/f.txt",
    "sub/x/local.txt",
    "logs/a/b.txt",
    "9.tmp",
    "n9.tmp",
    "plain.txt",
};

void make_tree(const TempDir &dir, const char *ignore_name)
{
    for (const char *rel : TREE) {
        write_file_text(dir.file(rel), "some text of this file\n");
    }
    for (const auto &[sub, text] : IGNORE_FILES) {
        std::string name = sub == "sub" ? ignore_name : ".gitignore";
        write_file_text(dir.file(sub.empty() ? name : sub + "/" + name), text);
    }
}

/* Paths (files, and directories not entered) that the walk excludes, with the reason. */
std::map<std::string, std::string> walk_excluded(const std::string &root)
{
    const char *const globals[] = {".git"};
    TrnWalkOptions opts = {};
    opts.exclude_patterns = globals;
    opts.exclude_pattern_count = 1;
    std::map<std::string, std::string> excluded;
    walk_files(root.c_str(), &opts, [&](const WalkedFile &f) {
        if (f.status == TRN_FILE_STATUS_EXCLUDED && strcmp(f.reason, "hidden name") != 0) {
            excluded[f.rel_path] = f.reason;
        }
        return WALK_CONTINUE;
    });
    return excluded;
}

std::string run_git(const std::string &dir, const std::string &args, const std::string &input)
{
    std::string in_path = dir + "/.git/trn_input";
    write_file_text(in_path, input);
    std::string cmd = "cd '" + dir + "' && git " + args + " < .git/trn_input 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[4096];
    size_t n;
    while (p && (n = fread(buf, 1, sizeof buf, p)) > 0) {
        out.append(buf, n);
    }
    if (p) {
        pclose(p);
    }
    return out;
}

TEST(IgnoreRules, AgreeWithGitCheckIgnore)
{
    TempDir dir;
    make_tree(dir, ".gitignore");
    ASSERT_EQ(system(("git init -q '" + dir.path() + "'").c_str()), 0);
    /* Every path and every directory on the way to it, as git sees them. */
    std::set<std::string> paths;
    for (const char *rel : TREE) {
        std::string p = rel;
        paths.insert(p);
        for (size_t i = 0; i < p.size(); i++) {
            if (p[i] == '/') {
                paths.insert(p.substr(0, i));
            }
        }
    }
    std::string input;
    for (const std::string &p : paths) {
        input += p + '\0';
    }
    /* -v --non-matching: "source:line:pattern<TAB>path" for each, "::<TAB>path" when none. */
    std::string out = run_git(dir.path(), "check-ignore -z -v -n --stdin", input);
    std::vector<std::string> fields;
    for (size_t start = 0, end; (end = out.find('\0', start)) != std::string::npos;
         start = end + 1) {
        fields.push_back(out.substr(start, end - start));
    }
    ASSERT_EQ(fields.size(), 4 * paths.size()) << out;
    std::map<std::string, std::string> git_rule; /* path -> "source:line" of an excluding rule */
    for (size_t i = 0; i < fields.size(); i += 4) {
        const std::string &pattern = fields[i + 2];
        if (!fields[i].empty() && pattern[0] != '!') {
            git_rule[fields[i + 3]] = fields[i] + ":" + fields[i + 1];
        }
    }
    std::map<std::string, std::string> ours = walk_excluded(dir.path());
    for (const std::string &p : paths) {
        /* Git excludes a path when it or a directory above it is ignored; the walk reports only
        ** the topmost, since it does not enter an excluded directory. */
        std::string top;
        for (size_t i = 0; i <= p.size(); i++) {
            if ((i == p.size() || p[i] == '/') && git_rule.count(p.substr(0, i))) {
                top = p.substr(0, i);
                break;
            }
        }
        if (top != p) {
            EXPECT_EQ(ours.count(p), 0u) << p << " is excluded, git says it is not";
            continue;
        }
        ASSERT_EQ(ours.count(p), 1u) << p << " is not excluded, git says " << git_rule[p];
        /* The same rule decides: the reason names git's source file and line. */
        EXPECT_EQ(ours[p].rfind(git_rule[p] + ":", 0), 0u) << p << ": " << ours[p];
    }
    EXPECT_GE(ours.size(), 15u);
}

TEST(IgnoreRules, TarnwickIgnoreReadsLikeGitignore)
{
    TempDir git_dir;
    TempDir own_dir;
    make_tree(git_dir, ".gitignore");
    make_tree(own_dir, ".tarnwickignore");
    std::map<std::string, std::string> from_git = walk_excluded(git_dir.path());
    std::map<std::string, std::string> from_own = walk_excluded(own_dir.path());
    ASSERT_EQ(from_git.size(), from_own.size());
    for (const auto &[path, reason] : from_git) {
        ASSERT_EQ(from_own.count(path), 1u) << path;
        if (reason.rfind("sub/.gitignore", 0) == 0) {
            EXPECT_EQ(from_own[path].rfind("sub/.tarnwickignore:", 0), 0u) << from_own[path];
        }
    }
}

TEST(Walk, ReportsEveryFileWithItsVerdictAndSkipsExcludedDirectories)
{
    TempDir dir;
    mkdir(dir.file(".tarnwick").c_str(), 0700);
    write_file_text(dir.file("node_modules/pkg/index.js"), "module.exports = 1;\n");
    write_file_text(dir.file("src/main.c"), "int main(void) { return 0; }\n");
    write_file_text(dir.file("src/NEWS"), "Release notes of the project\n");
    write_file_bytes(dir.file("src/blob"),
                     "\x7F"
                     "ELF\x02\x01\x01\x00",
                     8);
    write_file_text(dir.file("big.txt"), std::string(3000, 'x'));
    write_file_text(dir.file(".env"), "SECRET=1\n");
    write_file_text(dir.file("z.md"), "# Notes\n");
    std::vector<std::string> seen;
    auto record = [&seen](const WalkedFile &f) {
        std::string line = std::string(f.rel_path) + " " + std::to_string(f.kind) + " "
                           + trn_file_status_name(f.status);
        if (f.status == TRN_FILE_STATUS_INDEXABLE && f.kind == WALK_FILE) {
            line += std::string(" ") + trn_file_type_name(f.type);
        }
        if (f.reason[0]) {
            line += std::string(" (") + f.reason + ")";
        }
        seen.push_back(line);
        return WALK_CONTINUE;
    };
    TrnWalkOptions opts = {};
    opts.max_file_size = 2048;
    ASSERT_EQ(walk_files(dir.path().c_str(), &opts, std::ref(record)), 0);
    const std::vector<std::string> expected = {
        ".env 0 Excluded (hidden name)",
        "big.txt 0 Too large",
        "node_modules 1 Excluded (global pattern node_modules)",
        "src 2 Indexable",
        "src/NEWS 0 Indexable Text",
        "src/blob 0 Binary",
        "src/main.c 0 Indexable Source",
        "src 3 Indexable",
        "z.md 0 Indexable Markdown",
    };
    EXPECT_EQ(seen, expected);
    /* A walk below src gives the same, src itself first and last. */
    seen.clear();
    walk_tree(
        dir.path().c_str(), dir.file("src").c_str(), WALK_SCOPE_FILES, &opts, std::ref(record));
    EXPECT_EQ(seen, std::vector<std::string>(expected.begin() + 3, expected.end() - 1));
    EXPECT_EQ(walk_files(dir.file("absent").c_str(),
                         nullptr,
                         [](const WalkedFile &) {
                             return WALK_CONTINUE;
                         }),
              -1);
    int calls = 0;
    EXPECT_EQ(walk_files(dir.path().c_str(),
                         nullptr,
                         [&](const WalkedFile &) {
                             calls++;
                             return WALK_STOP;
                         }),
              1);
    EXPECT_EQ(calls, 1);
}

} // namespace
