#include "bt_registry.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string declared(std::string_view rules)
{
    std::string out;
    for (const vxc::BtDeclaration& d : vxc::rule_file_declarations(rules))
        out += std::to_string(d.id) + "=" + d.name + ";";
    return out;
}

TEST(RuleFileDeclarations, PatternLinesAsTheAgentReadsThem)
{
    EXPECT_EQ(declared(""), "");
    EXPECT_EQ(declared("1|2|Default|x|FromFirst|2|-|-|-\n2|1|r|b|-|1|1|GET|-\n"), "")
        << "no pattern line: the agent announces what it finds";
    EXPECT_EQ(declared("#7|/a|2|0|/a|0\n 7|/b|3|0|/b|0\n7|/c|4|0|/c\n"), "")
        << "a comment, a line not beginning \"7|\" and one of 5 fields";
    EXPECT_EQ(declared("7|/a|2|0|/a|0\n7|/b|3|1|/b|1\n7|/z|0|0|/z|0"), "1=Others;2=/a;3=/b;")
        << "excluded lines too; id 0 declares only Others; no last line feed";
    EXPECT_EQ(declared("7|/a|2|0|/a|0\r\n7|/a||9|0|/a|0\n7|/b|3x|0|/b|0\n"),
              "1=Others;2=/a;9=/a;3=/b;")
        << "empty fields are skipped; ids read as atoi reads them";
    EXPECT_EQ(declared("7|/m|5|0|/m|0|3|p=1\n7|/n|6|0|/n|0|3|p=1|GET\n"), "1=Others;6=/n;")
        << "pattern mode 3 needs its method field";
    const std::string long_name(300, 'n');
    EXPECT_EQ(declared("7|" + long_name + "|7|0|/l|0\n"),
              "1=Others;7=" + long_name.substr(0, 255) + ";");
    const std::string padded = "7|/p|8|0|" + std::string(1020, '*') + "|0\n";
    EXPECT_EQ(declared(padded), "") << "the sixth field lies past 1023 characters";
}

TEST(BtRegistry, LaterDeclarationRenamesAndIdTextMustBeWhole)
{
    vxc::BtRegistry r;
    EXPECT_TRUE(r.declare(3, "/a"));
    EXPECT_TRUE(r.declare(3, "/b"));
    EXPECT_EQ(r.names().at(3), "/b");
    EXPECT_TRUE(r.declared("3"));
    EXPECT_FALSE(r.declared("30"));
    EXPECT_FALSE(r.declared("3 "));
    EXPECT_FALSE(r.declared("99999999999999999999"));
    for (long long id = 100; r.names().size() < vxc::BtRegistry::kMaxIds; ++id)
        ASSERT_TRUE(r.declare(id, "x"));
    EXPECT_FALSE(r.declare(-5, "full"));
    EXPECT_TRUE(r.declare(3, "/c")) << "a known id is renamed even when the table is full";
}

}  // namespace
