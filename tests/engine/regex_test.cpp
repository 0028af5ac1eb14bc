// Regular-expression search: ordinary patterns find what the C library's POSIX extended matcher
// finds, and hostile ones are refused with a reason or run in time linear in the text.
#include "internal.h"
#include "store_fixtures.h"
#include "tarnwick.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include <regex.h>

namespace
{

struct Engine : HandEngine {
    void add(const std::string &text)
    {
        HandEngine::add("/t.txt", text, nullptr, (int32_t)e->count);
    }
    // (chunk, snippet) per hit.
    std::vector<std::pair<size_t, std::string>> hits(const char *pattern)
    {
        TrnResult out[TRN_MAX_RESULTS];
        int32_t n = trn_search(e, pattern, TRN_SEARCH_REGEX, TRN_MAX_RESULTS, out);
        std::vector<std::pair<size_t, std::string>> got;
        for (int32_t i = 0; i < n; i++) {
            got.push_back({(size_t)out[i].chunk_index, out[i].snippet});
        }
        return got;
    }
};

// (chunk, match start, match end) of each text that regcomp/regexec match, the matcher regex
// search used to run on.
std::vector<std::array<size_t, 3>> posix_matches(const std::vector<std::string> &texts,
                                                 const char *pattern)
{
    regex_t re;
    EXPECT_EQ(regcomp(&re, pattern, REG_EXTENDED | REG_ICASE), 0) << pattern;
    std::vector<std::array<size_t, 3>> got;
    for (size_t i = 0; i < texts.size(); i++) {
        regmatch_t m;
        if (regexec(&re, texts[i].c_str(), 1, &m, 0) == 0) {
            got.push_back({i, (size_t)m.rm_so, (size_t)m.rm_eo});
        }
    }
    regfree(&re);
    return got;
}

TEST(RegexSearch, OrdinaryPatternsFindWhatPosixExtendedFinds)
{
    const std::string pad(90, 'x');
    const std::vector<std::string> texts = {
        "The colour of the sky\nis blue; colors vary.",
        pad + " far away the Needle sits at offset ninety-one",
        "int main(void) { return 0x1F; }\n// end",
        "Price: $42.50 (tax 3.5%) on 2024-01-31",
        "foobaz and BARBAZ, then foo bar baz",
        "line one\nline two\nLINE three",
        "tabs\there and\tthere",
        "brackets [x] and a]b and a-b",
        "bait boat beet bout bt",
        "",
    };
    Engine eng;
    for (const std::string &t : texts) {
        eng.add(t);
    }
    const char *patterns[] = {
        "colou?r",
        "needle",
        "^line",
        "three$",
        "[0-9]{4}-[0-9]{2}",
        "(foo|bar)baz",
        "0x[[:xdigit:]]+",
        "\\$[0-9]+\\.[0-9]+",
        "b[aeiou]{2,}t",
        "a.b",
        "[^a-z ]+",
        "one.line",
        "[]a]b",
        "[[:space:]]there",
        "x*",
        "(a|b)+c?",
        "\\(tax",
        "^$",
        "e{2}",
        "[[:upper:]]{3}BAZ",
    };
    for (const char *pattern : patterns) {
        SCOPED_TRACE(pattern);
        const auto got = eng.hits(pattern);
        const auto want = posix_matches(texts, pattern);
        ASSERT_EQ(got.size(), want.size());
        for (size_t k = 0; k < got.size(); k++) {
            const auto [chunk, from, to] = want[k];
            ASSERT_EQ(got[k].first, chunk);
            // The same match: the snippet starts at most 75 bytes before it and shows all of it.
            const size_t start = texts[chunk].find(got[k].second);
            ASSERT_NE(start, std::string::npos) << got[k].second;
            EXPECT_LE(start, from);
            EXPECT_LE(from - start, 75u) << got[k].second;
            EXPECT_GE(start + got[k].second.size(), to);
        }
    }
}

// Patterns that a backtracking matcher or a recursive parser cannot survive.
TEST(RegexSearch, HostilePatternsAreRefusedOrRunInLinearTime)
{
    const std::string deep = std::string(20000, '(') + "a" + std::string(20000, ')');
    const std::string nested100 = std::string(100, '(') + "a" + std::string(100, ')');
    const std::string nested101 = std::string(101, '(') + "a" + std::string(101, ')');
    struct Case {
        const char *name;
        std::string pattern;
        bool compiles;
        const char *reason; // part of the message when refused
        size_t hits;        // over 64 chunks of 800 'a' bytes
    } cases[] = {
        {"back-reference", "(a)\\1", false, "back-references such as \\1", 0},
        {"back-reference after a group", "(a+)b\\2", false, "\\2", 0},
        {"escaped backslash then digit", "a\\\\1", true, "", 0},
        {"20,000 nested groups", deep, false, "nested too deeply", 0},
        {"101 nested groups", nested101, false, "nested too deeply", 0},
        {"100 nested groups", nested100, true, "", 64},
        {"parentheses in a bracket are no groups",
         "[" + std::string(200, '(') + "]|a",
         true,
         "",
         64},
        {"a class name's ']' does not close its bracket",
         "[[:alpha:]" + std::string(200, '(') + "]|a",
         true,
         "",
         64},
        {"(a*)*b", "(a*)*b", true, "", 0},
        {"((a|aa)+)+c", "((a|aa)+)+c", true, "", 0},
        {"(a|a?)+$b", "(a|a?)+$b", true, "", 0},
        {"repetition above 1000", "a{1001}", false, "invalid repetition size", 0},
        {"unbalanced", "(ab", false, "missing )", 0},
        {"ordinary", "a{800}$", true, "", 64},
    };
    Engine eng;
    for (int i = 0; i < TRN_MAX_RESULTS; i++) {
        eng.add(std::string(800, 'a'));
    }
    for (const Case &c : cases) {
        char message[200] = "untouched";
        EXPECT_EQ(trn_check_regex(c.pattern.c_str(), message, sizeof message), c.compiles ? 1 : 0)
            << c.name;
        if (c.compiles) {
            EXPECT_STREQ(message, "") << c.name;
        } else {
            EXPECT_NE(std::string(message).find(c.reason), std::string::npos)
                << c.name << ": " << message;
            EXPECT_EQ(std::string(message).find('\n'), std::string::npos) << c.name;
        }
        EXPECT_EQ(eng.hits(c.pattern.c_str()).size(), c.hits) << c.name;
    }
}

TEST(CheckRegex, MessageBufferIsCutAndOptional)
{
    char small[12];
    EXPECT_EQ(trn_check_regex("(x)\\1", small, sizeof small), 0);
    EXPECT_EQ(strlen(small), sizeof small - 1);
    EXPECT_EQ(trn_check_regex("(x)\\1", nullptr, 0), 0);
    EXPECT_EQ(trn_check_regex("ok+", nullptr, 0), 1);
    char message[64];
    EXPECT_EQ(trn_check_regex(nullptr, message, sizeof message), 0);
    EXPECT_STRNE(message, "");
}

} // namespace
