// The rule that puts a benchmark query in the vocabulary-mismatch slice: no content word of the
// query, once case-folded, stemmed and stripped of stop words, occurs in the answer.
#include "vocabulary.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

TEST(Vocabulary, MismatchMeansNoContentWordInAnyAnswer)
{
    const std::string page = "The font size of window titles is set in the Appearance panel.";
    const std::string code =
        "int readFile(const char *path_name) { return load_BUFFER(path_name); }";
    struct Case {
        const char *name;
        std::string query;
        std::vector<const std::string *> answers;
        bool mismatch;
    } cases[] = {
        {"no word shared", "make the caption text bigger", {&page}, true},
        {"only stop words shared", "how do I make it bigger in the", {&page}, true},
        {"a part of a word is not the word", "resize the caption", {&page}, true},
        {"another form of a word", "bigger window title", {&page}, false},
        {"case does not count", "SIZE of the caption", {&page}, false},
        {"identifier parts count", "reads a named file", {&code}, false},
        {"snake and camel case parts", "the buffer for a path", {&code}, false},
        {"a query of stop words only says nothing", "how do I do it", {&page}, false},
        {"any answer sharing a word is enough", "reads the caption", {&page, &code}, false},
        {"no answer shares a word", "enlarge the caption", {&page, &code}, true},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(vocabulary_mismatch(c.query, stem_set(c.answers)), c.mismatch) << c.name;
    }
    EXPECT_TRUE(is_stop_word("which"));
    EXPECT_FALSE(is_stop_word("window"));
}
