/* Tokenisers and the small text helpers. */
#include "core/vx_text.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vx_test_support.h"

namespace {

using vx_test::S;

std::vector<std::string> fields_of(char** fields, int n)
{
    return std::vector<std::string>(fields, fields + (n > 0 ? n : 0));
}

using Fields = std::vector<std::string>;

TEST(VxText, MultiDelimiterTokensCollapseAdjacentDelimitersAndDropSurplus)
{
    struct Case {
        const char* input;
        const char* delims;
        int max;
        Fields want;
    };
    const Case cases[] = {
        {"a,,b", ",", 8, {"a", "b"}},
        {",a,b,", ",", 8, {"a", "b"}},
        {"a, b;;c", ", ;", 8, {"a", "b", "c"}},
        {"a,b,c,d", ",", 2, {"a", "b"}},
        {"", ",", 8, {}},
        {",,,", ",", 8, {}},
    };
    for (const Case& c : cases) {
        std::string buf = c.input;
        char* fields[8] = {};
        int n = vxlb_get_tokens_with_multi_delimiter(buf.data(), fields,
                                                     const_cast<char*>(c.delims), c.max);
        EXPECT_EQ(fields_of(fields, n), c.want) << "input \"" << c.input << "\"";
    }
}

TEST(VxText, TokenizeOnWholeStringKeepsEmptyFieldsAndLeavesRestInLastField)
{
    struct Case {
        const char* input;
        int max;
        Fields want;
    };
    const Case cases[] = {
        {"a%20%20b", 8, {"a", "", "b"}}, {"a%20b%20", 8, {"a", "b", ""}},
        {"a%2b%20c", 8, {"a%2b", "c"}}, /* a partial delimiter is text */
        {"plain", 8, {"plain"}},         {"a%20b%20c%20d", 2, {"a", "b%20c%20d"}},
        {"a%20b", 1, {"a%20b"}},
    };
    for (const Case& c : cases) {
        std::string buf = c.input;
        char* fields[8] = {};
        int n = tokenize(buf.data(), fields, S("%20"), c.max);
        EXPECT_EQ(fields_of(fields, n), c.want) << "input \"" << c.input << "\"";
    }
}

TEST(VxText, RemoveWhitespacesByOperationAndRefusesNullInputOrMissingMode)
{
    struct Case {
        char operation;
        const char* want;
    };
    /* 1 leading, 2 trailing, 3 both, 7 and any unknown value: all. */
    const Case cases[] = {
        {1, "a b\t c \n"}, {2, " \t a b\t c"}, {3, "a b\t c"}, {7, "abc"}, {0, "abc"}, {5, "abc"},
    };
    const char* input = " \t a b\t c \n";
    for (const Case& c : cases) {
        std::string copy_src = input;
        char out[64] = "";
        char* r = vxlb_remove_whitespaces(copy_src.data(), out, c.operation, 1);
        EXPECT_EQ(r, out) << "operation " << int(c.operation);
        EXPECT_STREQ(out, c.want) << "operation " << int(c.operation);
        EXPECT_EQ(copy_src, input) << "copy mode must leave the input alone";

        std::string in_place = input;
        r = vxlb_remove_whitespaces(in_place.data(), nullptr, c.operation, 2);
        EXPECT_EQ(r, in_place.data());
        EXPECT_STREQ(in_place.c_str(), c.want) << "in place, operation " << int(c.operation);
    }
    /* Null input, and a mode with neither bit, are refused untouched. */
    char s[] = " a ";
    char out[8] = "x";
    EXPECT_EQ(vxlb_remove_whitespaces(nullptr, out, 3, 1), nullptr);
    EXPECT_EQ(vxlb_remove_whitespaces(s, out, 3, 0), nullptr);
    EXPECT_EQ(vxlb_remove_whitespaces(s, out, 3, 4), nullptr);
    EXPECT_TRUE(strcmp(s, " a ") == 0 && strcmp(out, "x") == 0);
}

TEST(VxText, IndexOfGivesOneBasedLastPositionAndCountsTerminator)
{
    char s[] = "a/b/c", empty[] = "";
    const std::pair<char, int> cases[] = {{'/', 4}, {'a', 1}, {'c', 5}, {'x', -1}, {0, 6}};
    for (const auto& [c, at] : cases) EXPECT_EQ(vxlb_indexOf(s, c), at) << int(c);
    EXPECT_EQ(vxlb_indexOf(empty, 0), 1);
    EXPECT_EQ(vxlb_indexOf(nullptr, '/'), -1);
}

TEST(VxText, SubstringCopiesLenMinusOffsetMinusOneCharacters)
{
    char s[] = "abcdefgh";
    struct Case {
        int offset;
        int len;
        const char* want; /* "untouched" when nothing may be written */
    };
    const Case cases[] = {
        {1, 4, "bc"},         {0, 8, "abcdefg"},
        {0, 1, ""},           {2, 9, "untouched"}, /* longer than the string */
        {5, 4, "untouched"},                       /* offset past len */
        {0, -1, "untouched"},
    };
    for (const Case& c : cases) {
        char dest[32] = "untouched";
        vxlb_substring(s, c.offset, c.len, dest);
        EXPECT_STREQ(dest, c.want) << "offset " << c.offset << " len " << c.len;
    }
}

TEST(VxText, StrRevGivesNewReversedCopy)
{
    for (std::string in : {"abc1", "x", ""}) {
        char* r = vxStrRev(in.data());
        ASSERT_NE(r, nullptr);
        EXPECT_NE(r, in.data());
        EXPECT_EQ(std::string(r), std::string(in.rbegin(), in.rend()));
        free(r);
    }
    EXPECT_EQ(vxStrRev(nullptr), nullptr);
}

TEST(VxText, SetOperationCodeIgnoresCaseAndRefusesNearMisses)
{
    const std::pair<const char*, int> cases[] = {
        {"EQUALS", 0}, {"contains", 1}, {"Not_Equals", 13}, {"eXtRaCt_SuBpArT", 15}, {"OCCURS", 18},
        {"", -1},      {"EQUAL", -1},   {"EQUALS ", -1},    {"STARTSWITH", -1},      {"IN", -1}};
    for (const auto& [name, code] : cases)
        EXPECT_EQ(setOperationCode(S(name)), code) << '"' << name << '"';
    EXPECT_EQ(setOperationCode(nullptr), -1);
}

TEST(VxText, CopyTextCutsToFitAndAlwaysTerminates)
{
    char dst[8];
    memset(dst, 'z', sizeof dst);
    EXPECT_EQ(vx::copy_text(dst, 4, "abcdef"), 3u);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(dst[4], 'z') << "wrote past cap";
    EXPECT_EQ(vx::copy_text(dst, sizeof dst, "1234567"), 7u);
    EXPECT_STREQ(dst, "1234567");
    EXPECT_EQ(vx::copy_text(dst, sizeof dst, nullptr), 0u);
    EXPECT_STREQ(dst, "");
    dst[0] = 'q';
    EXPECT_EQ(vx::copy_text(dst, 0, "abc"), 0u);
    EXPECT_EQ(dst[0], 'q') << "a zero-sized buffer is not written";
}

}  // namespace
