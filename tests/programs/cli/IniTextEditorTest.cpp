#include "cli/IniTextEditor.h"

#include <random>
#include <sstream>

#include <gtest/gtest.h>

#include "cli/IniText.h"

namespace korlo::settings::cli
{
namespace
{

struct Row
{
    const char* name;
    std::string text;
    std::string wanted;  // as any INI text
    std::string result;
};

const std::string Commented = "# The panel.\n"
                              "\n"
                              "; In percent.\n"
                              "[Audio]\n"
                              "volume = 40\n"
                              "# rings\n"
                              "ring=80\n"
                              "what is this\n"
                              "\n"
                              "# ---- Net ----\n"
                              "\n"
                              "# By cable.\n"
                              "[Net]\n"
                              "ip=1\n";

const Row Rows[] = {
    {"nothing changes", Commented, Commented, Commented},
    {"a value", "# a\n[G]\n  k = 1  \nl=2\n", "[G]\nk=9\nl=2\n", "# a\n[G]\n  k = 9\nl=2\n"},
    {"a value to nothing and back", "[G]\nk =1\n", "[G]\nk=\n", "[G]\nk =\n"},
    {"a value that needs quotes", "[G]\nk=1\n", "[G]\nk=\" 1\\n\"\n", "[G]\nk=\" 1\\n\"\n"},
    {"a quoted key with a sign in it", "[G]\n\"a=b\" = \"1\"\n", "[G]\n\"a=b\"=2\n", "[G]\n\"a=b\" = 2\n"},
    {"a value that holds the separator", "[G]\nk=a=b\n", "[G]\nk=c=d\n", "[G]\nk=c=d\n"},
    {"the last of equal keys", "[G]\nk=1\n[H]\n[G]\nk=2\n", "[G]\nk=3\n[H]\n", "[G]\nk=1\n[H]\n[G]\nk=3\n"},
    {"all of equal keys go", "[G]\nk=1\nl=1\n[H]\n[G]\nk=2\n", "[G]\nl=1\n[H]\n", "[G]\nl=1\n[H]\n[G]\n"},
    {"a removed key leaves its comment", "[G]\n# both\nk=1\nl=1\n", "[G]\nl=1\n", "[G]\n# both\nl=1\n"},
    {"a new key follows the last", "[G]\nk=1\n\n# H\n[H]\n", "[G]\na=1\nk=1\nz=1\n[H]\n",
     "[G]\nk=1\na=1\nz=1\n\n# H\n[H]\n"},
    {"a new key of an empty group", "[G]\n# c\n[H]\n", "[G]\nk=1\n[H]\n", "[G]\nk=1\n# c\n[H]\n"},
    {"a new key for a removed one", "[G]\nk=1\n# c\n", "[G]\nl=1\n", "[G]\nl=1\n# c\n"},
    {"a new group", "[G]\nk=1\n", "[G]\nk=1\n[A]\nx=1\ny=2\n[B]\n", "[G]\nk=1\n\n[A]\nx=1\ny=2\n\n[B]\n"},
    {"a new group after a blank line", "[G]\n\n", "[G]\n[A]\n", "[G]\n\n[A]\n"},
    {"a new group in an empty text", "", "[A]\nx=1\n", "[A]\nx=1\n"},
    {"a new group under comments alone", "# mine", "[A]\nx=1\n", "# mine\n\n[A]\nx=1\n"},
    {"a new group under a bad header", "[bad\nx=1\n", "[A]\nx=1\n", "[bad\nx=1\n\n[A]\nx=1\n"},
    {"a group goes, with what touches it", Commented, "[Net]\nip=1\n",
     "# The panel.\n\n# ---- Net ----\n\n# By cable.\n[Net]\nip=1\n"},
    {"the last group goes", Commented, "[Audio]\nvolume=40\nring=80\n",
     "# The panel.\n\n; In percent.\n[Audio]\nvolume = 40\n# rings\nring=80\nwhat is this\n\n# ---- Net ----\n\n"},
    {"the head of the file stays", "# head\n[G]\nk=1\n[H]\n", "[H]\n", "# head\n[H]\n"},
    {"a comment that touches the next header stays", "[G]\nk=1\n# H\n[H]\n", "[H]\n", "# H\n[H]\n"},
    {"a group of two parts goes", "[G]\nk=1\n[H]\nx=1\n[G]\nl=1\n", "[H]\nx=1\n", "[H]\nx=1\n"},
    {"every group goes", "# head\n\n[G]\nk=1\n", "", "# head\n\n"},
    {"lines end as the first", "[G]\r\nk=1\r\n", "[G]\nk=2\nl=3\n[H]\n", "[G]\r\nk=2\r\nl=3\r\n\r\n[H]\r\n"},
    {"a last line without an end", "[G]\nk=1", "[G]\nk=1\nl=2\n", "[G]\nk=1\nl=2\n"},
    {"a byte-order mark", "\xEF\xBB\xBF[G]\nk=1\n", "[G]\nk=2\n", "\xEF\xBB\xBF[G]\nk=2\n"},
    {"bad lines stay", "lost=1\n[G]\nk=1\n=2\n[x\ny=1\n", "[G]\nk=2\n", "lost=1\n[G]\nk=2\n=2\n[x\ny=1\n"},
    {"names without sense to a person", "[\"\"]\n\"\"=1\n[ ]]\n[*]\n\"\\x00\"=1\n",
     "[\"\"]\n\"\"=2\n[*]\n\"\\x00\"=3\n", "[\"\"]\n\"\"=2\n[ ]]\n[*]\n\"\\x00\"=3\n"},
};

TEST(IniTextEditorTest, ChangesWhatChangedAndLeavesTheRest)
{
    for (const Row& row : Rows)
    {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(IniTextEditor(row.text).Edit(ReadQuietly(row.wanted)), row.result);
    }
}

TEST(IniTextEditorTest, ShowsWhatTheTextSays)
{
    EXPECT_EQ(IniTextEditor(Commented).GetDocument(), ReadQuietly(Commented));
}

/// Odd lines, so that any two texts have something in common.
std::string RandomText(std::mt19937& random)
{
    static const std::vector<std::string> lines = {
        "[A]", " [ B ] ", "[\"A\"]", "[C\\]", "[\"\"]", "[bad", "a=1",    "a = 2", "\"a\"= \"3\"", "b=",
        "=1",  "# note",  "; note",  "",      "  ",     "junk", "\"=\"=", "c==",   "c=\"\\q\"",    "\"b\" =x\r",
    };
    std::string text;
    for (std::size_t count = random() % 16; count > 0; --count)
    {
        text += lines[random() % lines.size()] + '\n';
    }
    return text;
}

TEST(IniTextEditorTest, ReadsAsTheWantedDocumentWhateverTheTexts)
{
    constexpr unsigned int seed = 20260131;
    std::mt19937 random(seed);
    for (int round = 0; round < 3000; ++round)
    {
        const std::string text = RandomText(random);
        const core::IniFile wanted = ReadQuietly(RandomText(random));
        const std::string edited = IniTextEditor(text).Edit(wanted);
        ASSERT_EQ(ReadQuietly(edited), wanted) << "seed " << seed << ", round " << round << ":\n" << text;
    }
}

std::ptrdiff_t CountLines(const std::string& text, const std::string& wanted)
{
    std::istringstream lines(text);
    std::ptrdiff_t count = 0;
    for (std::string line; std::getline(lines, line);)
    {
        count += line == wanted ? 1 : 0;
    }
    return count;
}

TEST(IniTextEditorTest, NoCommentAndNoBadLineIsLostWhileEveryGroupStays)
{
    constexpr unsigned int seed = 4711;
    std::mt19937 random(seed);
    for (int round = 0; round < 1000; ++round)
    {
        const std::string text = RandomText(random);
        core::IniFile wanted = ReadQuietly(text);
        for (auto& [group, values] : wanted)
        {
            values.clear();
            values["new"] = "value";
        }
        const std::string edited = IniTextEditor(text).Edit(wanted);
        for (const std::string line : {"# note", "; note", "junk", "=1", "c=\"\\q\""})
        {
            ASSERT_EQ(CountLines(edited, line), CountLines(text, line))
                << "seed " << seed << ", round " << round << ":\n"
                << text << "became\n"
                << edited;
        }
    }
}

}  // namespace
}  // namespace korlo::settings::cli
