/* The session's texts: keyword files, start and modify lines built from them
 * and a files directory, the answers to fetches, and agent lines told apart. */
#include "session.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

namespace {

TEST(KeywordFile, KeepsOrderSkipsCommentsAndTrimsBlanks)
{
    std::vector<vxc::Keyword> k;
    std::string error;
    ASSERT_EQ(vxc::parse_keywords("# a session\n"
                                  "testIdx=3\r\n"
                                  "\n"
                                  "   \n"
                                  "  maxCharInSeqBlob = 200  \n"
                                  "tags=a b=c\n"
                                  "BTRuleConfig=@bt_rules.txt\n"
                                  "empty=\n"
                                  "klvEpochDiff=1388534400",
                                  &k, &error),
              0)
        << error;
    std::vector<std::pair<std::string, std::string>> got;
    for (const vxc::Keyword& kw : k) got.emplace_back(kw.key, kw.value);
    /* Only the first "=" separates; a last line without a line feed counts. */
    EXPECT_EQ(got, (decltype(got){{"testIdx", "3"},
                                  {"maxCharInSeqBlob", "200"},
                                  {"tags", "a b=c"},
                                  {"BTRuleConfig", "@bt_rules.txt"},
                                  {"empty", ""},
                                  {"klvEpochDiff", "1388534400"}}));
    EXPECT_TRUE(vxc::names_files(k));
    k.erase(k.begin() + 3);
    EXPECT_FALSE(vxc::names_files(k));
}

TEST(KeywordFile, RefusesWhatWouldBreakTheLineOrLeaveTheDirectory)
{
    const char* bad[] = {
        "testIdx",         /* no "=" */
        "=3",              /* no key */
        "tags=a;b",        /* a second field */
        "a;b=1",           /* the same in the key */
        "x=1\x01",         /* control character */
        "f=@",             /* no name */
        "f=@../secret",    /* out of the directory */
        "f=@sub/file",     /* not directly in it */
        "f=@a%3Bsize%3D1", /* would fake the encoding */
        "f=@..",
    };
    for (const char* text : bad) {
        std::vector<vxc::Keyword> k;
        std::string error;
        EXPECT_EQ(vxc::parse_keywords(std::string("ok=1\n") + text + "\n", &k, &error), -1) << text;
        EXPECT_EQ(error.rfind("line 2: ", 0), 0u) << text << ": " << error;
    }
    std::string error;
    std::vector<vxc::Keyword> k;
    EXPECT_EQ(vxc::read_keyword_file("/nonexistent/vxc-session.txt", &k, &error), -1);
    EXPECT_NE(error.find("/nonexistent/vxc-session.txt"), std::string::npos);
}

class Message : public testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/vxc-lite-session-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        put("bt_rules.txt", "rule1|a\nrule2|b", 1700000001);
        put("entry.txt", "entry\n", 1700000002);
        put("p1.txt", "profile one\n", 1700000003);
        put("p2.txt", std::string("two\0with nul", 12), 1700000004);
        put("empty.txt", "", 1700000005);
        mkdir((dir_ + "/adir").c_str(), 0755);
    }
    void TearDown() override { std::system(("rm -rf " + dir_).c_str()); }

    void put(const std::string& name, const std::string& content, time_t mtime)
    {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << content;
        utimbuf t{mtime, mtime};
        utime(path.c_str(), &t);
    }

    static std::vector<vxc::Keyword> keywords(const std::string& text)
    {
        std::vector<vxc::Keyword> k;
        std::string error;
        EXPECT_EQ(vxc::parse_keywords(text, &k, &error), 0) << error;
        return k;
    }

    std::string dir_;
};

TEST_F(Message, StartLineEncodesFilesAndCountsProfilesAheadOfTheFirst)
{
    const vxc::SessionMessage m = vxc::build_message(vxc::kStartHead,
                                                     keywords("testIdx=3\n"
                                                              "BTRuleConfig=@bt_rules.txt\n"
                                                              "bciInstrSessionPct=100\n"
                                                              "instrProfile=@p1.txt\n"
                                                              "BTTConfig=NA\n"
                                                              "instrProfile=@p2.txt\n"
                                                              "VXEntryPointsFile=@missing.txt\n"
                                                              "instrProfile=@gone.txt\n"
                                                              "vxMethodMonFile=@empty.txt\n"
                                                              "vxModuleFile=@adir\n"),
                                                     dir_);
    EXPECT_EQ(m.line,
              "vx_control_req:action=start_instrumentation;status=running;testIdx=3;"
              "BTRuleConfig=bt_rules.txt%3Bsize%3D15%3Blmd%3D1700000001;bciInstrSessionPct=100;"
              "numInstrProfile=3;instrProfile=p1.txt;lmd=1700000003;size=12;BTTConfig=NA;"
              "instrProfile=p2.txt;lmd=1700000004;size=12;"
              "VXEntryPointsFile=missing.txt%3Bsize%3D1%3Blmd%3D0;"
              "instrProfile=gone.txt;lmd=1;size=1;"
              "vxMethodMonFile=empty.txt%3Bsize%3D0%3Blmd%3D1700000005;"
              "vxModuleFile=adir%3Bsize%3D1%3Blmd%3D0;\n");

    ASSERT_EQ(m.files.count("BTRuleConfig"), 1u);
    EXPECT_TRUE(m.files.at("BTRuleConfig").present);
    EXPECT_EQ(m.files.at("BTRuleConfig").content, "rule1|a\nrule2|b");
    EXPECT_FALSE(m.files.at("VXEntryPointsFile").present);
    EXPECT_FALSE(m.files.at("vxModuleFile").present) << "a directory is not served";
    EXPECT_EQ(m.files.count("BTTConfig"), 0u) << "NA names no file";
    EXPECT_EQ(m.files.count("instrProfile"), 0u) << "profiles are kept by name";
    ASSERT_EQ(m.profiles.size(), 3u);
    EXPECT_EQ(m.profiles.at("p2.txt").content, std::string("two\0with nul", 12));
    EXPECT_FALSE(m.profiles.at("gone.txt").present);
}

TEST_F(Message, CountGivenByTheFileIsKeptAndOtherHeadsAreUsed)
{
    EXPECT_EQ(vxc::build_message(vxc::kModifyHead,
                                 keywords("instrProfile=@p1.txt\nnumInstrProfile=7\n"), dir_)
                  .line,
              "vx_control_req:action=modify;instrProfile=p1.txt;lmd=1700000003;size=12;"
              "numInstrProfile=7;\n");
    EXPECT_EQ(vxc::build_message(vxc::kModifyHead, keywords("instrProfile=NA\n"), dir_).line,
              "vx_control_req:action=modify;numInstrProfile=1;instrProfile=NA;\n");
    EXPECT_EQ(vxc::build_message(vxc::kStartHead, {}, dir_).line,
              "vx_control_req:action=start_instrumentation;status=running;\n");
}

TEST(AgentLines, RequestsAnswersAndOthersAreToldApart)
{
    struct Case {
        const char* line;
        vxc::AgentLine kind;
        const char* argument;
    };
    const Case cases[] = {
        {"vx_control_req:action=send_file;keyword=BTRuleConfig;", vxc::AgentLine::FileRequest,
         "BTRuleConfig"},
        {"vx_control_req:action=send_file;", vxc::AgentLine::FileRequest, ""},
        {"vx_control_req:action=send_instrumentation_profile;status=running;instrProfile=p.txt",
         vxc::AgentLine::ProfileRequest, "p.txt"},
        {"vx_control_req:action=send_instrumentation_profile;status=running;"
         "instrProfile=/a/b/p.txt ",
         vxc::AgentLine::ProfileRequest, "/a/b/p.txt"},
        {"vx_control_rep:action=start_instrumentation;status=starting;result=Ok;",
         vxc::AgentLine::StartAnswer, ""},
        {"vx_control_rep:action=stop_instrumentation;status=stopping;result=Ok;",
         vxc::AgentLine::StopAnswer, ""},
        {"vx_control_rep:action=modify;result=Ok;", vxc::AgentLine::ModifyAnswer, ""},
        {"vx_control_rep:result=Error:<Unable to process modify message",
         vxc::AgentLine::ErrorAnswer, ""},
        {"vx_control_req:action=reconnect;heartBeat 4;", vxc::AgentLine::Heartbeat, ""},
        {"vx_control_req:action=reconnect", vxc::AgentLine::Other, ""},
        {"Timeout has occured while reading response from VXC", vxc::AgentLine::Other, ""},
        {"", vxc::AgentLine::Other, ""},
    };
    for (const Case& c : cases) {
        std::string argument = "stale";
        EXPECT_EQ(vxc::classify_agent_line(c.line, &argument), c.kind) << c.line;
        EXPECT_EQ(argument, c.argument) << c.line;
    }
}

}  // namespace
